// The HTTP side of the agent, between the socket and the page. Any bytes come, in one piece or in
// two; every answer is one that this server gives, whole and with its own body. The arguments of
// requests to the API are read as well.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/api_query.h"
#include "agent/http_connections.h"
#include "fuzz/target.h"

namespace tidegate::fuzz {
namespace {

constexpr std::string_view kPage = "# TYPE a gauge\na 1\n";
constexpr std::string_view kHealthy = "ok\n";
constexpr std::string_view kQuery = "query ";  // begins so

// Inputs whose size is a multiple of it come in two parts as well. It takes a fuzzer more than half
// of its time; the seeds are replayed both ways all the same.
#ifdef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION
constexpr size_t kCutSizes = 4;
#else
constexpr size_t kCutSizes = 1;
#endif

struct Answer {
  int status = 0;
  std::string body;
  bool operator==(const Answer& other) const {
    return status == other.status && body == other.body;
  }
};

using agent::HttpConnections;
using Request = agent::HttpAnswers::Request;

class Server {
 public:
  Server()
      : connections_(
            Limits(), [this](Request request) { asked_[HttpConnections::kPages] = request; },
            [this](Request request) { asked_[HttpConnections::kApi] = request; }, &health_) {
    Require(connections_.Open(), "there is a server");
  }

  // The answers to one client that sends these parts, and reads after each.
  std::string Exchange(const std::vector<std::string_view>& parts) {
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0,
            "there are sockets");
    sockaddr address = {};
    address.sa_family = AF_UNIX;
    connections_.Add(agent::UniqueFd(ends[0]), &address, sizeof(address));
    std::string got;
    {
      const agent::UniqueFd client(ends[1]);
      for (const std::string_view part : parts) {
        // Parts after the end of the connection have no reader.
        [[maybe_unused]] const ssize_t sent =
            send(client.get(), part.data(), part.size(), MSG_NOSIGNAL);
        Serve();
        Receive(client, &got);
      }
    }
    Serve();
    Require(connections_.empty(), "a client that left is gone");
    return got;
  }

 private:
  static agent::HttpLimits Limits() {
    agent::HttpLimits limits;
    limits.connections = 1;  // as many as there are, which spares looking for others
    return limits;
  }
  void Serve() {
    int rounds = 0;
    bool asked = false;
    do {
      connections_.Run();
      asked = false;
      for (const auto kind : {HttpConnections::kPages, HttpConnections::kApi}) {
        const Request request = std::exchange(asked_[kind], nullptr);
        if (request == nullptr) continue;
        asked = true;
        connections_.SetMade(kind, AnswerTo(*request));
      }
      Require(++rounds < 10000, "the server comes to rest");
    } while (asked || connections_.Timeout() == 0);
  }
  static agent::HttpAnswer AnswerTo(const agent::HttpRequest& request) {
    agent::HttpAnswer answer;
    answer.text = kPage;
    if (request.path == "/metrics") return answer;
    agent::ApiQuery query;
    std::string error;
    if (!agent::ParseApiQuery(request, &query, &error)) {
      Require(error.find('\n') == std::string::npos && error.size() < 400, "one line");
      answer.status = 400;
      answer.text = error;
      return answer;
    }
    Require(query.limit <= agent::ApiQuery::kMaxLimit, "a limit is one");
    Require(query.ids.size() <= agent::ApiQuery::kMaxIds, "few ids");
    Require(query.words.size() <= agent::ApiQuery::kMaxWords, "few words");
    answer.text = kQuery;
    for (const agent::SeriesId& id : query.ids) answer.text += agent::TextOf(id);
    answer.etag = "\"x\"";
    return answer;
  }
  static void Receive(const agent::UniqueFd& client, std::string* got) {
    char part[1 << 14];
    ssize_t size = 0;
    do {
      size = recv(client.get(), part, sizeof(part), 0);
      if (size > 0) got->append(part, static_cast<size_t>(size));
    } while (size == sizeof(part));  // less is all there is
  }

  agent::Health health_;
  std::array<Request, HttpConnections::kMade> asked_;
  HttpConnections connections_;
};

// Takes one answer off the front. An answer to HEAD has no body; no body begins as an answer does.
Answer TakeAnswer(std::string_view* rest) {
  constexpr std::string_view kStart = "HTTP/1.1 ";
  constexpr std::string_view kLength = "\r\nContent-Length: ";
  Answer answer;
  const size_t end = rest->find("\r\n\r\n");
  Require(rest->substr(0, kStart.size()) == kStart && end != std::string_view::npos,
          "an answer has a head");
  const std::string head(rest->substr(0, end));
  rest->remove_prefix(end + 4);
  answer.status = std::stoi(head.substr(kStart.size(), 3));
  const size_t length = head.find(kLength);
  Require(length != std::string::npos, "an answer says how long it is");
  const size_t size = std::stoul(head.substr(length + kLength.size()));
  if (rest->empty() || rest->substr(0, kStart.size()) == kStart) return answer;
  Require(size <= rest->size(), "a body is as long as its head says");
  answer.body = rest->substr(0, size);
  rest->remove_prefix(size);
  return answer;
}

std::vector<Answer> AnswersIn(std::string_view text) {
  constexpr int kStatuses[] = {200, 304, 400, 404, 405, 413, 414, 417, 431, 500, 505};
  std::vector<Answer> answers;
  while (!text.empty()) {
    const Answer& answer = answers.emplace_back(TakeAnswer(&text));
    Require(std::count(std::begin(kStatuses), std::end(kStatuses), answer.status) == 1,
            "a status that this server gives");
    if (answer.status != 200 || answer.body.empty()) continue;
    const agent::ConstList<agent::PageFile> files = agent::PageFiles();
    Require(
        answer.body == kPage || answer.body == kHealthy ||
            answer.body.compare(0, kQuery.size(), kQuery) == 0 ||
            std::any_of(files.begin(), files.end(),
                        [&](const agent::PageFile& file) { return answer.body == file.content; }),
        "a body is that of its page");
  }
  return answers;
}

bool ReadHead(const uint8_t* data, size_t size) {
  static Server* const server = new Server;  // never ends
  const std::string_view all(reinterpret_cast<const char*>(data), size);
  const std::vector<Answer> whole = AnswersIn(server->Exchange({all}));
  if (size % kCutSizes == 0) {
    const std::vector<Answer> cut =
        AnswersIn(server->Exchange({all.substr(0, size / 2), all.substr(size / 2)}));
    Require(whole == cut, "how the bytes come changes nothing");
  }
  return !whole.empty() && std::all_of(whole.begin(), whole.end(),
                                       [](const Answer& answer) { return answer.status == 200; });
}

const Registration kRegistration("http_head", ReadHead);

}  // namespace
}  // namespace tidegate::fuzz

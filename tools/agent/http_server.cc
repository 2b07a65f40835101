#include "agent/http_server.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <exception>
#include <iterator>
#include <optional>
#include <system_error>
#include <utility>

#include "agent/listen_socket.h"

namespace tidegate::agent {
namespace {

constexpr int kAcceptsAtOnce = 16;
constexpr std::chrono::seconds kAcceptPause(1);  // when there are no descriptors

// Services need descriptors as well.
HttpLimits WithinDescriptors(HttpLimits limits) {
  rlimit descriptors = {};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
    limits.connections = std::min<size_t>(limits.connections, descriptors.rlim_cur / 4);
  }
  return limits;
}

}  // namespace

HttpServer::HttpServer(PageWriter page, Api api, Report report, std::function<void()> on_failure,
                       Health* health, const HttpLimits& limits)
    : report_(std::move(report)),
      on_failure_(std::move(on_failure)),
      pages_(
          "page",
          [page = std::move(page)](const HttpRequest&, HttpAnswer* answer) { page(&answer->text); },
          report_, [this] { Wake(); }),
      answers_("api", std::move(api), report_, [this] { Wake(); }),
      connections_(
          WithinDescriptors(limits),
          [this](HttpAnswers::Request request) { pages_.Make(std::move(request)); },
          [this](HttpAnswers::Request request) { answers_.Make(std::move(request)); }, health) {}

HttpServer::~HttpServer() {
  while (!Stop(std::chrono::hours(1))) {
  }
}

bool HttpServer::SplitAddress(const std::string& address, std::string* host, int* port) {
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos) return false;
  *host = address.substr(0, colon);
  if (host->size() > 2 && host->front() == '[' && host->back() == ']') {
    *host = host->substr(1, host->size() - 2);
  } else if (host->find(':') != std::string::npos) {
    return false;
  }
  const char* const end = address.data() + address.size();
  const auto result = std::from_chars(address.data() + colon + 1, end, *port);
  return result.ec == std::errc() && result.ptr == end && *port >= 0 && *port <= 65535;
}

UniqueFd HttpServer::ListenAt(const std::string& address, UniqueFd present, std::string* url,
                              std::string* error) {
  std::string host;
  int port = 0;
  if (!SplitAddress(address, &host, &port)) {
    *error = "\"" + address + "\" is no address for HTTP";
    return UniqueFd();
  }
  std::string reason;
  std::string shown = address.substr(0, address.rfind(':'));
  if (host.empty()) shown = "[::]";
  UniqueFd listener = ListenOn(host.empty() ? "::" : host, &present, &port, &reason);
  if (!listener.valid() && host.empty()) {  // there may be no IPv6
    shown = "0.0.0.0";
    listener = ListenOn(shown, &present, &port, &reason);
  }
  if (!listener.valid()) *error = "cannot serve HTTP on " + address + ": " + reason;
  *url = "http://" + shown + ':' + std::to_string(port);
  return listener;
}

bool HttpServer::Start(const std::string& address, std::string* error, UniqueFd present) {
  listener_ = ListenAt(address, std::move(present), &url_, error);
  if (!listener_.valid()) return false;
  wake_ = UniqueFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!wake_.valid() || !connections_.Open()) {
    *error = "cannot serve HTTP on " + address + ": no memory or no descriptors";
    return false;
  }
  try {
    pages_.Start();
    answers_.Start();
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "http");
      Run();
    });
  } catch (const std::system_error& failure) {
    *error = "cannot serve HTTP on " + address + ": " + failure.code().message();
    return false;
  }
  return true;
}

bool HttpServer::Stop(std::chrono::milliseconds most) {
  if (!thread_.joinable()) return true;
  if (!stopping_.exchange(true)) Wake();
  const auto end = Clock::now() + most;
  while (!ended_) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  thread_.join();
  return true;
}

UniqueFd HttpServer::ShareListener() const {
  return UniqueFd(fcntl(listener_.get(), F_DUPFD_CLOEXEC, 0));
}

void HttpServer::Wake() {
  const uint64_t one = 1;
  // A full counter wakes as well.
  [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof(one));
}

void HttpServer::Run() noexcept {
  try {
    Serve();
  } catch (const std::exception&) {
    connections_.CutAll();
    connections_.Run();
  }
  pages_.Stop();
  answers_.Stop();
  ended_ = true;
  if (!stopping_) on_failure_();
}

void HttpServer::Serve() {
  while (!stopping_ || !connections_.empty()) {
    Wait();
    std::optional<HttpAnswer> answer;
    if (pages_.Take(&answer)) connections_.SetMade(HttpConnections::kPages, std::move(answer));
    if (answers_.Take(&answer)) connections_.SetMade(HttpConnections::kApi, std::move(answer));
    if (stopping_) {
      listener_.Reset();
      connections_.Drain();
    } else {
      AcceptSome();
    }
    connections_.Run();
  }
}

void HttpServer::Wait() {
  const Clock::time_point now = Clock::now();
  const bool accepts = listener_.valid() && connections_.HasRoom() && now >= accepts_from_;
  pollfd fds[] = {{wake_.get(), POLLIN, 0},
                  {connections_.fd(), POLLIN, 0},
                  {accepts ? listener_.get() : -1, POLLIN, 0}};
  int timeout = connections_.Timeout();
  if (now < accepts_from_) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(accepts_from_ - now).count();
    timeout = timeout < 0 ? static_cast<int>(left) : std::min(timeout, static_cast<int>(left));
  }
  if (poll(fds, std::size(fds), timeout) <= 0) return;
  uint64_t times = 0;
  [[maybe_unused]] const ssize_t size = read(wake_.get(), &times, sizeof(times));
}

void HttpServer::AcceptSome() {
  if (Clock::now() < accepts_from_) return;
  for (int i = 0; i < kAcceptsAtOnce && connections_.HasRoom(); ++i) {
    sockaddr_storage storage = {};
    auto* const address = reinterpret_cast<sockaddr*>(&storage);
    socklen_t size = sizeof(storage);
    UniqueFd client(accept4(listener_.get(), address, &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (client.valid()) {
      connections_.Add(std::move(client), address, size);
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      const int failure = errno;
      accepts_from_ = Clock::now() + kAcceptPause;
      report_("cannot accept an HTTP client, new ones wait: " +
              std::generic_category().message(failure));
      return;
    } else if (errno == EAGAIN) {
      return;
    }
  }
}

}  // namespace tidegate::agent

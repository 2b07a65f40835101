#include "agent/http_connections.h"

#include <algorithm>
#include <climits>
#include <exception>
#include <memory>
#include <utility>

namespace tidegate::agent {
namespace {

constexpr size_t kConnectionMemory = 32 << 10;  // of the library, for the head and what it became
constexpr size_t kSpareClients = 32;            // that are cut and not gone yet

constexpr const char* kTextType = "text/plain";
constexpr std::string_view kApiPaths[] = {"/api/status", "/api/metrics", "/api/series",
                                          "/api/points"};

const char* Header(MHD_Connection* connection, const char* name) {
  return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
}

// Whether the client has it already.
bool Has(MHD_Connection* connection, std::string_view etag) {
  const char* const header = Header(connection, MHD_HTTP_HEADER_IF_NONE_MATCH);
  if (header == nullptr || etag.empty()) return false;
  const std::string_view tags(header);
  return tags == "*" || tags.find(etag) != std::string_view::npos;
}

MHD_Result AddArgument(void* request, MHD_ValueKind /*kind*/, const char* key, size_t key_size,
                       const char* value, size_t value_size) {
  auto* const arguments = &static_cast<HttpRequest*>(request)->arguments;
  try {
    arguments->emplace_back(std::string(key, key_size),
                            value == nullptr ? std::string() : std::string(value, value_size));
    return MHD_YES;
  } catch (const std::exception&) {
    return MHD_NO;
  }
}

// Null without memory.
HttpAnswers::Request RequestOf(MHD_Connection* connection, std::string_view path) noexcept {
  try {
    auto request = std::make_shared<HttpRequest>();
    request->path = path;
    const int all = MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, nullptr, nullptr);
    const int read =
        MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, AddArgument, request.get());
    if (request->arguments.size() != static_cast<size_t>(all) || read != all) return nullptr;
    return request;
  } catch (const std::exception&) {
    return nullptr;
  }
}

bool HasBody(MHD_Connection* connection) {
  const char* const length = Header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
  return Header(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING) != nullptr ||
         (length != nullptr && std::string_view(length) != "0");
}

}  // namespace

HttpConnections::HttpConnections(const HttpLimits& limits, Make make_page, Make make_answer,
                                 Health* health)
    : limits_(limits),
      health_(health),
      clients_(limits.connections + kSpareClients),
      answers_{HttpAnswers(std::max<size_t>(limits.pages, 2), std::move(make_page), health),
               HttpAnswers(std::max<size_t>(limits.answers, 2), std::move(make_answer), health)} {}

HttpConnections::~HttpConnections() {
  if (daemon_ == nullptr) return;
  CutAll();
  // The library must not be ended before clients that waited have been woken.
  Run();
  MHD_stop_daemon(daemon_);
}

bool HttpConnections::Open() {
  const auto make = [](std::string_view text) {
    return MakeResponse(text.data(), text.size(), kTextType, nullptr);
  };
  healthy_ = make("ok\n");
  not_found_ = make("no such page\n");
  not_allowed_ = make("only GET and HEAD\n");
  no_body_ = make("no request with a body\n");
  unavailable_ = make("no memory for the answer\n");
  if (!healthy_ || !not_found_ || !not_allowed_ || !no_body_ || !unavailable_ || !OpenFiles()) {
    return false;
  }
  MHD_add_response_header(not_allowed_.get(), MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  MHD_add_response_header(unavailable_.get(), MHD_HTTP_HEADER_RETRY_AFTER, "5");
  daemon_ =
      MHD_start_daemon(MHD_USE_EPOLL | MHD_USE_NO_LISTEN_SOCKET | MHD_ALLOW_SUSPEND_RESUME, 0,
                       nullptr, nullptr, HandleRequest, this, MHD_OPTION_NOTIFY_CONNECTION,
                       HandleConnection, this, MHD_OPTION_NOTIFY_COMPLETED, HandleCompleted, this,
                       MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(clients_.size()),
                       MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory, MHD_OPTION_END);
  return daemon_ != nullptr;
}

bool HttpConnections::OpenFiles() {
  for (const PageFile& file : PageFiles()) {
    const std::string type(file.type);
    const std::string etag(file.etag);
    files_.push_back({&file, MakeResponse(file.content.data(), file.content.size(), type.c_str(),
                                          etag.c_str())});
    MHD_Response* const response = files_.back().response.get();
    if (response == nullptr) return false;
    MHD_add_response_header(response, "Content-Security-Policy", kPagePolicy);
    MHD_add_response_header(response, "Referrer-Policy", "no-referrer");
  }
  return true;
}

bool HttpConnections::HasRoom() const { return open_ < clients_.size(); }

void HttpConnections::Add(UniqueFd client, const sockaddr* address, socklen_t size) {
  if (open_ - cut_ >= limits_.connections) CutForRoom();
  // If it fails, for lack of memory, the library has closed the socket.
  MHD_add_connection(daemon_, client.Release(), address, size);
}

void HttpConnections::Run() {
  CutSlow();
  MHD_run(daemon_);
  BeginAnswer(kPages);
  BeginAnswer(kApi);
}

int HttpConnections::fd() const {
  return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
}

int HttpConnections::Timeout() const {
  MHD_UNSIGNED_LONG_LONG library = 0;
  if (MHD_get_timeout(daemon_, &library) == MHD_YES && library == 0) return 0;
  Clock::time_point end = Clock::time_point::max();
  for (const Client& client : clients_) {
    if (client.state != State::kFree) end = std::min(end, EndOf(client));
  }
  for (const Made kind : {kPages, kApi}) {
    if (LacksRoom(kind)) end = std::min(end, answers_[kind].Oldest()->made + limits_.page);
  }
  if (end == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

void HttpConnections::SetMade(Made kind, std::optional<HttpAnswer> answer) {
  const HttpAnswers::Slot* const made = answers_[kind].SetMade(std::move(answer));
  for (const Client& client : clients_) {
    if (client.state == State::kWaiting && client.slot == made) {
      MHD_resume_connection(client.connection);
    }
  }
}

void HttpConnections::CutAll() {
  for (Client& client : clients_) {
    if (client.state != State::kFree) Cut(&client);
  }
}

HttpConnections::Client* HttpConnections::ClientOf(MHD_Connection* connection) {
  return static_cast<Client*>(
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
}

void HttpConnections::HandleConnection(void* self, MHD_Connection* connection, void** context,
                                       MHD_ConnectionNotificationCode code) {
  auto* const connections = static_cast<HttpConnections*>(self);
  if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
    auto* const client = static_cast<Client*>(*context);
    connections->Release(client);
    if (client->state == State::kCut) --connections->cut_;
    *client = Client();
    --connections->open_;
    return;
  }
  // There is one: the library's limit is their number.
  const auto client = std::find_if(connections->clients_.begin(), connections->clients_.end(),
                                   [](const Client& other) { return other.state == State::kFree; });
  client->state = State::kHead;
  client->fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
  client->connection = connection;
  client->since = Clock::now();
  *context = &*client;
  ++connections->open_;
}

void HttpConnections::HandleCompleted(void* self, MHD_Connection* connection, void** /*context*/,
                                      MHD_RequestTerminationCode /*code*/) {
  Client* const client = ClientOf(connection);
  static_cast<HttpConnections*>(self)->Release(client);
  client->complete = false;
  client->since = Clock::now();
  if (client->state != State::kCut) client->state = State::kHead;
}

MHD_Result HttpConnections::HandleRequest(void* self, MHD_Connection* connection, const char* path,
                                          const char* method, const char* /*version*/,
                                          const char* /*upload*/, size_t* /*upload_size*/,
                                          void** /*context*/) {
  auto* const connections = static_cast<HttpConnections*>(self);
  Client* const client = ClientOf(connection);
  if (client->state == State::kCut) return MHD_NO;
  if (!client->complete) return connections->BeginRequest(client, method);
  return connections->Answer(client, path);
}

// An answer at this point ends the connection, which spares reading the body. Any other request
// comes once more.
MHD_Result HttpConnections::BeginRequest(Client* client, std::string_view method) {
  client->complete = true;
  client->state = State::kAnswer;
  client->since = Clock::now();
  if (method != MHD_HTTP_METHOD_GET && method != MHD_HTTP_METHOD_HEAD) {
    return MHD_queue_response(client->connection, MHD_HTTP_METHOD_NOT_ALLOWED, not_allowed_.get());
  }
  if (HasBody(client->connection)) {
    return MHD_queue_response(client->connection, MHD_HTTP_CONTENT_TOO_LARGE, no_body_.get());
  }
  // Without a body there is nothing to expect; the library would take what follows for one.
  if (Header(client->connection, MHD_HTTP_HEADER_EXPECT) != nullptr) {
    return MHD_queue_response(client->connection, MHD_HTTP_EXPECTATION_FAILED, no_body_.get());
  }
  return MHD_YES;
}

MHD_Result HttpConnections::Answer(Client* client, std::string_view path) {
  if (client->request != nullptr || client->slot != nullptr) return AnswerWithMade(client);
  if (path == "/metrics") return AskFor(client, kPages, path);
  for (const std::string_view api : kApiPaths) {
    if (path == api) return AskFor(client, kApi, path);
  }
  for (const File& file : files_) {
    if (path == file.file->path) return AnswerWithFile(*client, file);
  }
  const bool healthy = path == "/healthz";
  return MHD_queue_response(client->connection, healthy ? MHD_HTTP_OK : MHD_HTTP_NOT_FOUND,
                            (healthy ? healthy_ : not_found_).get());
}

MHD_Result HttpConnections::AnswerWithFile(const Client& client, const File& file) {
  const bool unchanged = Has(client.connection, file.file->etag);
  // With status 304 the library sends the head alone.
  return MHD_queue_response(client.connection, unchanged ? MHD_HTTP_NOT_MODIFIED : MHD_HTTP_OK,
                            file.response.get());
}

MHD_Result HttpConnections::AskFor(Client* client, Made kind, std::string_view path) {
  // The page of metrics is the same for all, whatever they add to its path.
  if (kind == kPages) {
    client->request = metrics_;
  } else {
    client->request = RequestOf(client->connection, path);
  }
  if (client->request == nullptr) {
    ++health_->http_failed_pages;
    return MHD_queue_response(client->connection, MHD_HTTP_SERVICE_UNAVAILABLE, unavailable_.get());
  }
  client->kind = kind;
  return AnswerWithMade(client);
}

MHD_Result HttpConnections::AnswerWithMade(Client* client) {
  const HttpAnswers::Slot* const slot = client->slot;
  if (slot == nullptr || slot->state == HttpAnswers::State::kMaking) {
    client->state = State::kWaiting;
    MHD_suspend_connection(client->connection);
    return MHD_YES;
  }
  client->state = State::kAnswer;
  if (slot->state == HttpAnswers::State::kFailed) {
    Release(client);
    return MHD_queue_response(client->connection, MHD_HTTP_SERVICE_UNAVAILABLE, unavailable_.get());
  }
  const HttpAnswer& answer = *slot->answer;
  const bool unchanged = answer.status == MHD_HTTP_OK && Has(client->connection, answer.etag);
  return MHD_queue_response(client->connection, unchanged ? MHD_HTTP_NOT_MODIFIED : answer.status,
                            slot->response.get());
}

HttpConnections::Clock::time_point HttpConnections::EndOf(const Client& client) const {
  if (client.state == State::kCut) return Clock::time_point::max();
  return client.since + (client.state == State::kHead ? limits_.head : limits_.answer);
}

const HttpConnections::Client* HttpConnections::FirstWaiting(Made kind) const {
  const Client* first = nullptr;
  for (const Client& client : clients_) {
    if (client.state != State::kWaiting || client.slot != nullptr || client.kind != kind) continue;
    if (first == nullptr || client.since < first->since) first = &client;
  }
  return first;
}

bool HttpConnections::LacksRoom(Made kind) const {
  return answers_[kind].IsFull() && FirstWaiting(kind) != nullptr &&
         answers_[kind].Oldest() != nullptr;
}

void HttpConnections::Cut(Client* client) {
  if (client->state == State::kCut) return;
  if (client->state != State::kHead) {
    // The bytes that the kernel still has to send are dropped as well.
    const linger at_once = {1, 0};
    setsockopt(client->fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  }
  shutdown(client->fd, SHUT_RDWR);
  if (client->state == State::kWaiting) MHD_resume_connection(client->connection);
  client->state = State::kCut;
  ++cut_;
}

void HttpConnections::CutSlow() {
  const Clock::time_point now = Clock::now();
  for (Client& client : clients_) {
    if (client.state == State::kFree || client.state == State::kCut) continue;
    const bool idle = client.state == State::kHead;
    if (now < EndOf(client) && !(idle && draining_)) continue;
    Cut(&client);
    if (!idle) ++health_->http_cut_slow;
  }
  for (const Made kind : {kPages, kApi}) CutReadersOfOldest(kind, now);
}

void HttpConnections::CutReadersOfOldest(Made kind, Clock::time_point now) {
  if (!LacksRoom(kind)) return;
  const HttpAnswers::Slot* const oldest = answers_[kind].Oldest();
  if (now < oldest->made + limits_.page) return;
  for (Client& client : clients_) {
    if (client.slot != oldest || client.state == State::kCut) continue;
    Cut(&client);
    ++health_->http_cut_slow;
  }
}

void HttpConnections::CutForRoom() {
  Client* victim = nullptr;
  const auto rank = [](const Client& client) {
    return std::pair(client.state != State::kHead, client.since);
  };
  for (Client& client : clients_) {
    if (client.state == State::kFree || client.state == State::kCut) continue;
    if (victim == nullptr || rank(client) < rank(*victim)) victim = &client;
  }
  if (victim == nullptr) return;
  Cut(victim);
  ++health_->http_cut_crowded;
}

void HttpConnections::BeginAnswer(Made kind) {
  const Client* const first = FirstWaiting(kind);
  if (first == nullptr) return;
  HttpAnswers::Slot* const slot = answers_[kind].Begin(first->request);
  if (slot == nullptr) return;
  for (Client& client : clients_) {
    if (client.state != State::kWaiting || client.slot != nullptr || client.kind != kind ||
        !(*client.request == *slot->request)) {
      continue;
    }
    client.slot = slot;
    ++slot->readers;
  }
  answers_[kind].Make(*slot);
}

void HttpConnections::Release(Client* client) {
  client->request = nullptr;
  if (HttpAnswers::Slot* const slot = std::exchange(client->slot, nullptr)) {
    answers_[client->kind].Release(slot);
  }
}

}  // namespace tidegate::agent

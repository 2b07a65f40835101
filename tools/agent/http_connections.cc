#include "agent/http_connections.h"

#include <algorithm>
#include <climits>
#include <utility>

namespace tidegate::agent {
namespace {

constexpr size_t kConnectionMemory = 32 << 10;  // of the library, for the head and what it became
constexpr size_t kSpareClients = 32;            // that are cut and not gone yet

constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";
constexpr const char* kTextType = "text/plain";
constexpr std::string_view kWelcomePage =
    "<!DOCTYPE html><title>tidegate-agent</title><h1>tidegate-agent</h1>\n"
    "<p>Version " TIDEGATE_VERSION
    ". Receives metrics of the services on this host over a local socket.</p>\n"
    "<ul><li><a href=\"/metrics\">/metrics</a>: the newest value of every series, for Prometheus\n"
    "<li><a href=\"/healthz\">/healthz</a>: says ok</ul>\n";

const char* Header(MHD_Connection* connection, const char* name) {
  return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
}

bool HasBody(MHD_Connection* connection) {
  const char* const length = Header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
  return Header(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING) != nullptr ||
         (length != nullptr && std::string_view(length) != "0");
}

}  // namespace

HttpConnections::HttpConnections(const HttpLimits& limits, std::function<void()> make_page,
                                 Health* health)
    : limits_(limits),
      make_page_(std::move(make_page)),
      health_(health),
      clients_(limits.connections + kSpareClients),
      pages_(std::max<size_t>(limits.pages, 2)) {}

HttpConnections::~HttpConnections() {
  if (daemon_ == nullptr) return;
  CutAll();
  // The library must not be ended before clients that waited have been woken.
  Run();
  MHD_stop_daemon(daemon_);
}

HttpConnections::Response HttpConnections::MakeResponse(std::string_view text, const char* type) {
  Response response(MHD_create_response_from_buffer(text.size(), const_cast<char*>(text.data()),
                                                    MHD_RESPMEM_PERSISTENT));
  if (response == nullptr ||
      MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, type) != MHD_YES) {
    return nullptr;
  }
  return response;
}

bool HttpConnections::Open() {
  welcome_ = MakeResponse(kWelcomePage, "text/html; charset=utf-8");
  healthy_ = MakeResponse("ok\n", kTextType);
  not_found_ = MakeResponse("no such page\n", kTextType);
  not_allowed_ = MakeResponse("only GET and HEAD\n", kTextType);
  no_body_ = MakeResponse("no request with a body\n", kTextType);
  unavailable_ = MakeResponse("no memory for the page\n", kTextType);
  if (!welcome_ || !healthy_ || !not_found_ || !not_allowed_ || !no_body_ || !unavailable_) {
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

bool HttpConnections::HasRoom() const { return open_ < clients_.size(); }

void HttpConnections::Add(UniqueFd client, const sockaddr* address, socklen_t size) {
  if (open_ - cut_ >= limits_.connections) CutForRoom();
  // If it fails, for lack of memory, the library has closed the socket.
  MHD_add_connection(daemon_, client.Release(), address, size);
}

void HttpConnections::Run() {
  CutSlow();
  MHD_run(daemon_);
  BeginPage();
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
  if (LacksRoomForPage()) end = std::min(end, OldestPage()->made + limits_.page);
  if (end == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

void HttpConnections::SetPage(std::optional<std::string> page) {
  const auto made = std::find_if(pages_.begin(), pages_.end(), [](const Page& other) {
    return other.state == Page::State::kMaking;
  });
  made->text = std::move(page);
  if (made->text) made->response = MakeResponse(*made->text, kMetricsType);
  made->state = made->response ? Page::State::kReady : Page::State::kFailed;
  made->made = Clock::now();
  if (!made->response) ++health_->http_failed_pages;
  if (made->readers == 0) *made = Page();
  for (const Client& client : clients_) {
    if (client.state == State::kWaiting && client.page == &*made) {
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
    connections->ReleasePage(client);
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
  static_cast<HttpConnections*>(self)->ReleasePage(client);
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
  if (path == "/metrics") return AnswerWithPage(client);
  unsigned status = MHD_HTTP_OK;
  MHD_Response* response = not_found_.get();
  if (path == "/healthz") {
    response = healthy_.get();
  } else if (path == "/") {
    response = welcome_.get();
  } else {
    status = MHD_HTTP_NOT_FOUND;
  }
  return MHD_queue_response(client->connection, status, response);
}

MHD_Result HttpConnections::AnswerWithPage(Client* client) {
  if (client->page == nullptr || client->page->state == Page::State::kMaking) {
    client->state = State::kWaiting;
    MHD_suspend_connection(client->connection);
    return MHD_YES;
  }
  client->state = State::kAnswer;
  if (client->page->state == Page::State::kReady) {
    return MHD_queue_response(client->connection, MHD_HTTP_OK, client->page->response.get());
  }
  ReleasePage(client);
  return MHD_queue_response(client->connection, MHD_HTTP_SERVICE_UNAVAILABLE, unavailable_.get());
}

HttpConnections::Clock::time_point HttpConnections::EndOf(const Client& client) const {
  if (client.state == State::kCut) return Clock::time_point::max();
  return client.since + (client.state == State::kHead ? limits_.head : limits_.answer);
}

bool HttpConnections::WantsPage() const {
  return std::any_of(clients_.begin(), clients_.end(), [](const Client& client) {
    return client.state == State::kWaiting && client.page == nullptr;
  });
}

bool HttpConnections::LacksRoomForPage() const {
  return WantsPage() && std::none_of(pages_.begin(), pages_.end(), [](const Page& page) {
           return page.state == Page::State::kFree;
         });
}

const HttpConnections::Page* HttpConnections::OldestPage() const {
  const Page* oldest = nullptr;
  for (const Page& page : pages_) {
    if (page.state == Page::State::kFree || page.state == Page::State::kMaking) continue;
    if (oldest == nullptr || page.made < oldest->made) oldest = &page;
  }
  return oldest;
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
  if (!LacksRoomForPage()) return;
  const Page* const oldest = OldestPage();
  if (now < oldest->made + limits_.page) return;
  for (Client& client : clients_) {
    if (client.page != oldest || client.state == State::kCut) continue;
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

void HttpConnections::BeginPage() {
  if (!WantsPage()) return;
  Page* page = nullptr;
  for (Page& other : pages_) {
    if (other.state == Page::State::kMaking) return;  // that one first
    if (other.state == Page::State::kFree) page = &other;
  }
  if (page == nullptr) return;
  page->state = Page::State::kMaking;
  for (Client& client : clients_) {
    if (client.state != State::kWaiting || client.page != nullptr) continue;
    client.page = page;
    ++page->readers;
  }
  make_page_();
}

void HttpConnections::ReleasePage(Client* client) {
  Page* const page = std::exchange(client->page, nullptr);
  if (page == nullptr || --page->readers > 0) return;
  if (page->state != Page::State::kMaking) *page = Page();
}

}  // namespace tidegate::agent

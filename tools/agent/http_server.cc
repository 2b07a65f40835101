#include "agent/http_server.h"

#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <system_error>
#include <utility>

namespace tidegate::agent {
namespace {

constexpr size_t kThreads = 4;
constexpr time_t kReadSeconds = 5;
constexpr time_t kWriteSeconds = 10;
constexpr time_t kKeepAliveSeconds = 1;

constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";
constexpr const char* kWelcomePage =
    "<!DOCTYPE html><title>tidegate-agent</title><h1>tidegate-agent</h1>\n"
    "<p>Version " TIDEGATE_VERSION
    ". Receives metrics of the services on this host over a local socket.</p>\n"
    "<ul><li><a href=\"/metrics\">/metrics</a>: the newest value of every series, for Prometheus\n"
    "<li><a href=\"/healthz\">/healthz</a>: says ok</ul>\n";

}  // namespace

struct HttpServer::Impl {
  void Metrics(httplib::Response* response) {
    const auto content = std::make_shared<std::string>();
    {
      // So that many clients at once cannot hold many pages in the making.
      const std::lock_guard<std::mutex> lock(mutex);
      content->reserve(last_size + last_size / 8);
      page(content.get());
      last_size = content->size();
    }
    // Goes out from where it is; as plain content it would be copied, and compressed as well.
    response->set_content_provider(content->size(), kMetricsType,
                                   [content](size_t offset, size_t size, httplib::DataSink& sink) {
                                     constexpr size_t kPart = 1 << 16;
                                     return sink.write(content->data() + offset,
                                                       std::min(size, kPart));
                                   });
  }

  PageWriter page;
  httplib::Server server;
  std::mutex mutex;  // of a page in the making
  size_t last_size = 0;
};

HttpServer::HttpServer(PageWriter page, std::function<void()> on_failure)
    : impl_(std::make_unique<Impl>()), on_failure_(std::move(on_failure)) {
  impl_->page = std::move(page);
  httplib::Server& server = impl_->server;
  server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  // Before anything of a body is read: one without a length would have no limit.
  server.set_pre_routing_handler([](const httplib::Request& request, httplib::Response& response) {
    using Result = httplib::Server::HandlerResponse;
    if (request.method == "GET" || request.method == "HEAD") return Result::Unhandled;
    response.status = 405;
    response.set_header("Allow", "GET, HEAD");
    return Result::Handled;
  });
  server.set_read_timeout(kReadSeconds);
  server.set_write_timeout(kWriteSeconds);
  server.set_keep_alive_timeout(kKeepAliveSeconds);
  // The library's own would let a second agent take the same port and half of the requests.
  server.set_socket_options([](socket_t fd) {
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  });
  server.Get("/metrics", [this](const httplib::Request&, httplib::Response& response) {
    impl_->Metrics(&response);
  });
  server.Get("/healthz", [](const httplib::Request&, httplib::Response& response) {
    response.set_content("ok\n", "text/plain");
  });
  server.Get("/", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(kWelcomePage, "text/html; charset=utf-8");
  });
}

HttpServer::~HttpServer() {
  while (!Stop(std::chrono::hours(1))) {
  }
}

bool HttpServer::SplitAddress(const std::string& address, std::string* host, int* port) {
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
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

bool HttpServer::Start(const std::string& address, std::string* error) {
  std::string host;
  int port = 0;
  if (!SplitAddress(address, &host, &port)) {
    *error = "\"" + address + "\" is no address for HTTP";
    return false;
  }
  errno = 0;
  if (port == 0) {
    port = impl_->server.bind_to_any_port(host);
  } else if (!impl_->server.bind_to_port(host, port)) {
    port = -1;
  }
  if (port < 0) {
    *error = "cannot serve HTTP on " + address + ": " +
             (errno == 0 ? "no such host" : std::generic_category().message(errno));
    return false;
  }
  url_ = "http://" + address.substr(0, address.rfind(':') + 1) + std::to_string(port);
  thread_ = std::thread([this] {
    impl_->server.listen_after_bind();
    ended_ = true;
    if (!stopping_) on_failure_();
  });
  // Stop would do nothing to a server that is not there yet.
  while (!impl_->server.is_running() && !ended_) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool HttpServer::Stop(std::chrono::milliseconds most) {
  if (!thread_.joinable()) return true;
  if (!stopping_.exchange(true)) impl_->server.stop();
  const auto end = std::chrono::steady_clock::now() + most;
  while (!ended_) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  thread_.join();
  return true;
}

}  // namespace tidegate::agent

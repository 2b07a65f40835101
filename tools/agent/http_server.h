#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace tidegate::agent {

// The agent's pages: /metrics, /healthz and, at /, what this is.
//
// Threads: Start and Stop from one; `page` is called on threads of its own, four at most, and not
// by two at a time. A client gets 5 s for each part of its request and 10 s for each part of the
// answer that it does not take, so four that are slow on purpose keep the others waiting. Only GET
// and HEAD are served, and no body is ever read; the limits on the request line and the header are
// those of the HTTP library.
class HttpServer {
 public:
  // Appends the content of /metrics.
  using PageWriter = std::function<void(std::string*)>;

  // Takes "host:port" apart, with brackets around a host that has colons itself. False if it is
  // something else.
  static bool SplitAddress(const std::string& address, std::string* host, int* port);

  // `on_failure` is called on another thread if the server ends without Stop.
  HttpServer(PageWriter page, std::function<void()> on_failure);
  ~HttpServer();  // stops, and waits for the slowest client
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds to an address and serves; port 0 is any free one. Returns false and says why in `error`.
  bool Start(const std::string& address, std::string* error);

  // Ends after the answers under way. False if they take longer than `most`. Safe twice.
  bool Stop(std::chrono::milliseconds most);

  // Where it listens, as "http://127.0.0.1:9464". REQUIRES: Start succeeded.
  const std::string& url() const { return url_; }

 private:
  struct Impl;

  const std::unique_ptr<Impl> impl_;
  const std::function<void()> on_failure_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> ended_{false};  // the thread is about to
  std::string url_;
  std::thread thread_;
};

}  // namespace tidegate::agent

#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace tidegate::agent {

// The agent's pages: /metrics, /healthz and, at /, what this is.
//
// Threads: Start and Stop from one; `page` is called on threads of its own, four at most, and not
// by two at a time. A client gets 5 s for its request and 10 s for each part of the answer that it
// does not take; a request with a body above 4 KiB is refused.
class HttpServer {
 public:
  // Appends the content of /metrics.
  using PageWriter = std::function<void(std::string*)>;

  // Takes "host:port" apart, with brackets around a host that has colons itself. False if it is
  // something else.
  static bool SplitAddress(const std::string& address, std::string* host, int* port);

  // `on_failure` is called on another thread if the server ends without Stop.
  HttpServer(PageWriter page, std::function<void()> on_failure);
  ~HttpServer();  // stops
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds to an address and serves; port 0 is any free one. Returns false and says why in `error`.
  bool Start(const std::string& address, std::string* error);

  // Ends after the answers under way. Safe twice.
  void Stop();

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

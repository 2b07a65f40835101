#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <string>
#include <thread>

namespace tidegate::test {

// An HTTP server on loopback with a thread of its own. What its handlers use outlives it.
class LoopbackServer {
 public:
  LoopbackServer() = default;
  ~LoopbackServer() {
    server_.stop();
    if (thread_.joinable()) thread_.join();
  }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  // Answers POST requests to paths that match `pattern`; 0 is any free port. To be called once.
  void Serve(const char* pattern, httplib::Server::Handler handler, int port = 0) {
    server_.Post(pattern, std::move(handler));
    port_ = port == 0 ? server_.bind_to_any_port("127.0.0.1") : port;
    ASSERT_TRUE(port == 0 || server_.bind_to_port("127.0.0.1", port));
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::yield();
  }

  int port() const { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace tidegate::test

#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agent/forward_url.h"
#include "agent/forwarder.h"
#include "agent/influx_format.h"
#include "support/blocks.h"
#include "support/loopback_server.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// A server on loopback that keeps what is posted and answers as told.
class Database {
 public:
  using Answer = std::function<void(const httplib::Request&, httplib::Response&)>;

  // An answer for each request, the last one for all further ones.
  void Serve(std::vector<Answer> answers, int port = 0) {
    const auto handle = [this, answers](const httplib::Request& request, httplib::Response& reply) {
      answers[std::min(Keep(request), answers.size()) - 1](request, reply);
    };
    server_.Serve(".*", handle, port);
  }

  int port() const { return server_.port(); }
  std::string url() const { return server_.url(); }
  std::vector<httplib::Request> requests() const {
    const Guard guard(mutex_);
    return requests_;
  }
  std::vector<std::string> bodies() const {
    std::vector<std::string> bodies;
    for (const httplib::Request& request : requests()) bodies.push_back(request.body);
    return bodies;
  }

 private:
  using Guard = METRICS::WriteGuard<METRICS::Mutex>;

  // How many there are now.
  size_t Keep(const httplib::Request& request) {
    const Guard guard(mutex_);
    requests_.push_back(request);
    return requests_.size();
  }

  mutable METRICS::Mutex mutex_;
  std::vector<httplib::Request> requests_ METRICS_GUARDED_BY(mutex_);
  test::LoopbackServer server_;
};

inline Database::Answer Status(int status, const std::string& body = "") {
  return [=](const httplib::Request&, httplib::Response& reply) {
    reply.status = status;
    reply.set_content(body, "text/plain");
  };
}

class ForwarderTest : public testing::Test {
 protected:
  using milliseconds = std::chrono::milliseconds;
  using seconds = std::chrono::seconds;
  using steady_clock = std::chrono::steady_clock;

  // Batches of one point, and none of the agent's own.
  static ForwardOptions Options(const std::string& url) {
    ForwardOptions options;
    std::string error;
    EXPECT_TRUE(ParseForwardUrl(url, &options.target.url, &error)) << error;
    options.limits.batch_points = 1;
    options.limits.interval = seconds(3600);
    options.first_pause = milliseconds(1);
    options.longest_pause = milliseconds(20);
    options.health_interval = seconds(3600);
    options.host = "h";
    return options;
  }
  void Make(
      const ForwardOptions& options,
      std::unique_ptr<PointFormat> format = std::make_unique<InfluxFormat>(ProcessLabel::kNone)) {
    forwarder_ = std::make_unique<Forwarder>(options, std::move(format), &numbers_, &health_,
                                             [this](const std::string& line) {
                                               const METRICS::WriteGuard guard(mutex_);
                                               log_.push_back(line);
                                             });
  }
  void Start(const ForwardOptions& options) {
    Make(options);
    forwarder_->Start();
  }
  void Handle(double value) { HandleBlock(MakeBlock(1, "m", {}, {{0, {}, {}, {value}}})); }
  void HandleBlock(const Block& block) { forwarder_->Handle(PacketWith(block), ClientId()); }
  static std::string LineOf(int value) {
    return "m,tenant=t1 value=" + std::to_string(value) + " 1700000000000000000\n";
  }
  // For what happens on other threads: 20 seconds at most.
  static bool Await(const std::function<bool()>& condition) {
    const auto end = steady_clock::now() + seconds(20);
    while (!condition() && steady_clock::now() < end) std::this_thread::sleep_for(milliseconds(2));
    return condition();
  }
  std::vector<std::string> log() {
    const METRICS::WriteGuard guard(mutex_);
    return log_;
  }
  static std::string UrlOf(int port) { return "http://127.0.0.1:" + std::to_string(port); }
  std::string Url() const { return database_.url(); }

  Database database_;  // outlives the forwarder, whose open connection it would wait for
  Health health_;
  DestinationNumbers numbers_{&health_, "d"};
  METRICS::Mutex mutex_;
  std::vector<std::string> log_ METRICS_GUARDED_BY(mutex_);
  std::unique_ptr<Forwarder> forwarder_;
};

}  // namespace tidegate::agent

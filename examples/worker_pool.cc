// worker_pool [SOCKET_PATH]: a server with a queue and a pool of workers, as an HTTP server has.
// Each worker times its requests, and tags them when their result is known.

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "example.h"

namespace {

using METRICS::BoundSeries;
using METRICS::Incr;
using METRICS::Metric;
using METRICS::ScopedTimer;
using METRICS::Store;
using METRICS::WithSuffix;

constexpr int kWorkers = 4;
constexpr int kRequests = 400;

struct Request {
  int number;
  std::chrono::steady_clock::time_point arrived;
};

class Server {
 public:
  explicit Server(METRICS::MetricClient& client) {
    METRICS::MetricInstanceCfg latency;
    latency.name = "latency";
    latency.tag_names = {"path", "status"};
    latency_ = example::MakeMetric(client, "pool", latency);
    // Three numbers on one series without tags. Every request needs them, so they are bound once:
    // from then on an emission is a few nanoseconds.
    METRICS::MetricInstanceCfg requests;
    requests.name = "requests";
    Metric* const metric = example::MakeMetric(client, "pool", requests);
    example::Require(accepted_.Bind(metric, {}, Incr(0)));
    example::Require(depth_.Bind(metric, {}, WithSuffix("queue", Store(0))));
    example::Require(waited_.Bind(metric, {}, "waited", METRICS::MetricsType::kTimer));
    for (int i = 0; i < kWorkers; ++i) {
      workers_.emplace_back([this] { Work(); });
    }
  }

  void Accept(int number) {
    const std::lock_guard<std::mutex> guard(mutex_);
    queue_.push_back({number, std::chrono::steady_clock::now()});
    accepted_.Emit(1);
    depth_.Emit(queue_.size());
    wake_.notify_one();
  }

  void Finish() {
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      closed_ = true;
    }
    wake_.notify_all();
    for (std::thread& worker : workers_) {
      worker.join();
    }
  }

 private:
  void Work() {
    Request request{};
    while (Next(&request)) {
      waited_.Emit(std::chrono::steady_clock::now() - request.arrived);
      Serve(request);
    }
  }

  bool Next(Request* request) {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return closed_ || !queue_.empty(); });
    if (queue_.empty()) return false;
    *request = queue_.front();
    queue_.pop_front();
    return true;
  }

  void Serve(const Request& request) {
    static constexpr std::array<const char*, 2> kPaths = {"/cart", "/search"};
    // From here to the end of the scope. A handler that threw would be timed as well, without tags.
    ScopedTimer timer(latency_);
    const char* const path = kPaths[static_cast<size_t>(request.number) % kPaths.size()];
    std::this_thread::sleep_for(std::chrono::microseconds(500 + request.number));
    const bool found = request.number % 20 != 0;
    timer.WithTags({{"path", path}, {"status", found ? "200" : "404"}});
  }

  Metric* latency_ = nullptr;
  BoundSeries accepted_;
  BoundSeries depth_;
  BoundSeries waited_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Request> queue_;
  bool closed_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace

int main(int argc, char** argv) {
  METRICS::MetricClient client;
  example::Start(client, argc, argv);
  Server server(client);
  for (int i = 0; i < kRequests; ++i) {
    server.Accept(i);
  }
  server.Finish();
  std::fputs(client.DebugString().c_str(), stdout);
  client.FlushAndExit();
  std::printf(
      "look for: timer pool.latency.timer by path and status, 404 for every twentieth request;\n"
      "          rate pool.requests.rate, gauge pool.requests.queue, timer pool.requests.waited\n");
}

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

constexpr int kWorkers = 4;
constexpr int kRequests = 400;

struct Request {
  int number;
  std::chrono::steady_clock::time_point arrived;
};

class Server {
 public:
  // Those without tags are bound: their emissions look nothing up, and cost a few nanoseconds.
  explicit Server(tidegate::Metrics& metrics)
      : latency_(metrics.Timer("latency", {"path", "status"})),
        accepted_(metrics.Rate("requests").With({})),
        depth_(metrics.Gauge("queue").With({})),
        waited_(metrics.Timer("waited").With({})) {
    for (int i = 0; i < kWorkers; ++i) {
      workers_.emplace_back([this] { Work(); });
    }
  }

  void Accept(int number) {
    const std::lock_guard<std::mutex> guard(mutex_);
    queue_.push_back({number, std::chrono::steady_clock::now()});
    accepted_.Add(1);
    depth_.Set(queue_.size());
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
      waited_.Observe(std::chrono::steady_clock::now() - request.arrived);
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
    auto timer = latency_.Start();
    const char* const path = kPaths[static_cast<size_t>(request.number) % kPaths.size()];
    std::this_thread::sleep_for(std::chrono::microseconds(500 + request.number));
    const bool found = request.number % 20 != 0;
    timer.WithTags({{"path", path}, {"status", found ? "200" : "404"}});
  }

  const tidegate::Timer latency_;
  const tidegate::BoundRate accepted_;
  const tidegate::BoundGauge depth_;
  const tidegate::BoundTimer waited_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Request> queue_;
  bool closed_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace

int main(int argc, char** argv) {
  tidegate::Metrics metrics(example::OptionsOf("pool", argc, argv));
  Server server(metrics);
  for (int i = 0; i < kRequests; ++i) {
    server.Accept(i);
  }
  server.Finish();
  std::fputs(metrics.DebugString().c_str(), stdout);
  std::printf(
      "look for: timer pool.latency by path and status, 404 for every twentieth request;\n"
      "          rate pool.requests, gauge pool.queue, timer pool.waited\n");
}

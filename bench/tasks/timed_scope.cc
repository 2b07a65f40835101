// The time of a scope, however it is left, with percentiles, by page.

#include <prometheus/summary.h>

#include <chrono>
#include <thread>

#include "task.h"

class ScopedTimer {
 public:
  explicit ScopedTimer(prometheus::Summary& summary) : summary_(summary) {}
  ~ScopedTimer() {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start_;
    summary_.Observe(time.count());
  }

 private:
  prometheus::Summary& summary_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

void RunTask(prometheus::Registry& registry) {
  auto& latency =
      prometheus::BuildSummary().Name("latency_seconds").Help("time").Register(registry);
  const prometheus::Summary::Quantiles quantiles = {
      {0.5, 0.01}, {0.9, 0.01}, {0.95, 0.01}, {0.99, 0.001}, {0.999, 0.0001}};
  for (const char* const page : {"cart", "search", "search"}) {
    const ScopedTimer timer(latency.Add({{"page", page}}, quantiles));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

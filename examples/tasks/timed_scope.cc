// The time of a scope, however it is left, with percentiles, by page.

#include <chrono>
#include <thread>

#include "task.h"

void RunTask(tidegate::Metrics& metrics) {
  const tidegate::Timer latency = metrics.Timer("latency", {"page"});
  for (const char* const page : {"cart", "search", "search"}) {
    auto timer = latency.Start();
    timer.WithTags({{"page", page}});
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

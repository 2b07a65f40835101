// host_load SOCKET [SERIES INTERVAL SECONDS]: one service of a host, for measuring what stands
// after it. SERIES (1000) counters with three tags add to themselves twice in each INTERVAL (10)
// for SECONDS (60). At the end it prints `host_load: emitted TOTAL`, the sum of all that was added.

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tidegate/service_metrics.h"

int main(int argc, char** argv) {
  if (argc != 3 && argc != 6) {
    std::fprintf(stderr, "usage: host_load SOCKET HOST [SERIES INTERVAL SECONDS]\n");
    return 2;
  }
  const int series = argc > 3 ? std::atoi(argv[3]) : 1000;
  const std::chrono::seconds interval(argc > 3 ? std::atoi(argv[4]) : 10);
  const std::chrono::seconds seconds(argc > 3 ? std::atoi(argv[5]) : 60);

  tidegate::Options options{"load"};
  options.socket_path = argv[1];
  options.tags = {{"host", argv[2]}};
  options.interval = interval;
  tidegate::Metrics metrics(options);
  const tidegate::Counter bytes =
      metrics.Counter("web.requests.bytes", {"method", "path", "status"});
  std::vector<tidegate::BoundCounter> counters;
  counters.reserve(static_cast<size_t>(series));
  for (int i = 0; i < series; ++i) {
    counters.push_back(bytes.With({{"method", i % 2 == 0 ? "get" : "post"},
                                   {"path", "/user/" + std::to_string(i)},
                                   {"status", 200 + i % 5}}));
  }

  // The same on every run, and whole numbers, so that sums are exact.
  std::minstd_rand random(1);
  std::uniform_int_distribution<int> size(1, 5000);
  uint64_t total = 0;
  const auto start = std::chrono::steady_clock::now();
  for (auto next = start; next < start + seconds; next += std::chrono::milliseconds(interval) / 2) {
    std::this_thread::sleep_until(next);
    for (tidegate::BoundCounter& counter : counters) {
      const int added = size(random);
      counter.Add(added);
      total += static_cast<uint64_t>(added);
    }
  }
  metrics.Stop();
  std::printf("host_load: emitted %" PRIu64 "\n", total);
}

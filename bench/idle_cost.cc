// idle_cost [SECONDS [INTERVAL]]: what does a service pay for 100,000 series that nobody feeds?
//
// Prints the share of a core that the library's own threads took over SECONDS (120), with default
// settings and a flush every INTERVAL (30) seconds, in the form of Google Benchmark's results. The
// main thread sleeps meanwhile.

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "metrics/metric_collector_item.h"
#include "metrics/metric_data.h"
#include "metrics/metric_method.h"
#include "scenarios.h"

namespace {

using tidegate::bench::Client;

constexpr size_t kSeries = 100000;
constexpr size_t kTags = 3;

double CpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Makes the series and lets each report until it falls silent, which would take some flushes.
void MakeQuietSeries(METRICS::Metric& metric) {
  for (size_t i = 0; i < kSeries; ++i) {
    const auto item = metric.WithTagValues(tidegate::bench::TagValues(i, kTags));
    item->Emit({METRICS::Incr(1)});
    for (const auto& [name, cell] : item->Fields()) {
      while (!cell->Send(1).values.empty()) {
      }
    }
  }
}

int ArgumentOr(int argc, char** argv, int index, int fallback) {
  const int given = argc > index ? std::atoi(argv[index]) : 0;
  return given > 0 ? given : fallback;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = ArgumentOr(argc, argv, 1, 120);
  const int interval = ArgumentOr(argc, argv, 2, 30);
  Client::Options options;
  options.core = METRICS::CoreInitCfg();
  options.interval = interval;
  Client client(options);
  MakeQuietSeries(client.Make("quiet", kTags));

  const auto start = std::chrono::steady_clock::now();
  const double cpu_before = CpuSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const double cpu = CpuSeconds() - cpu_before;
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;

  std::printf(
      "{\"benchmarks\": [{\"name\": \"IdleCost/series:%zu/interval:%d\", \"threads\": 1,\n"
      "  \"real_time\": %.6f, \"time_unit\": \"s\", \"cpu_seconds\": %.6f, \"cpu_percent\": "
      "%.4f}]}\n",
      kSeries, interval, wall.count(), cpu, 100 * cpu / wall.count());
}

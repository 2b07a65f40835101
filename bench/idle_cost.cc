// idle_cost [SECONDS [INTERVAL]]: what does a service pay for 100,000 series that nobody feeds?
//
// Prints the share of a core that the library's own threads took over SECONDS (120), in all and by
// thread, in the form of Google Benchmark's results. Settings are the defaults, with a flush every
// INTERVAL (30) seconds. The main thread sleeps meanwhile. Another thread, which is not counted,
// only wakes as often as that of expiry, and shows the cost of the wakes alone; the share beyond it
// is what the library does.

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "metrics/metric_collector_item.h"
#include "metrics/metric_data.h"
#include "metrics/metric_method.h"
#include "scenarios.h"

namespace {

using tidegate::bench::Client;

constexpr size_t kSeries = 100000;
constexpr size_t kTags = 3;
constexpr char kPlainSleeper[] = "plain_sleeper";

// CPU seconds of each thread so far, by its name.
std::map<std::string, double> CpuSeconds() {
  std::map<std::string, double> seconds;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    double nanos = 0;
    std::ifstream(task.path() / "schedstat") >> nanos;
    seconds[name] += nanos / 1e9;
  }
  return seconds;
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

// Wakes 200 times a second until `stopped`.
void SleepPlainly(const std::atomic<bool>& stopped) {
  ::pthread_setname_np(::pthread_self(), kPlainSleeper);
  while (!stopped) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
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
  std::atomic<bool> stopped{false};
  std::thread sleeper(SleepPlainly, std::cref(stopped));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // until it has its name

  const auto start = std::chrono::steady_clock::now();
  const auto before = CpuSeconds();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const auto after = CpuSeconds();
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  stopped = true;
  sleeper.join();

  std::printf(
      "{\"benchmarks\": [{\"name\": \"IdleCost/series:%zu/interval:%d\", \"threads\": 1,\n"
      "  \"real_time\": %.6f, \"time_unit\": \"s\",\n",
      kSeries, interval, wall.count());
  double all = 0;
  double sleeper_percent = 0;
  for (const auto& [name, cpu] : after) {
    const auto found = before.find(name);
    const double percent = 100 * (cpu - (found == before.end() ? 0 : found->second)) / wall.count();
    std::printf("  \"%s_percent\": %.4f,\n", name.c_str(), percent);
    (name == kPlainSleeper ? sleeper_percent : all) += percent;
  }
  std::printf("  \"cpu_percent\": %.4f, \"beyond_sleeper_percent\": %.4f}]}\n", all,
              all - sleeper_percent);
}

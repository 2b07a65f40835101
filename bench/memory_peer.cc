// What do the same series cost in prometheus-cpp?

#include <benchmark/benchmark.h>
#include <prometheus/text_serializer.h>

#include <chrono>
#include <sstream>

#include "isolated.h"
#include "peers.h"
#include "thread_clock.h"

namespace tidegate::bench {
namespace {

constexpr size_t kTags = 3;
constexpr size_t kMany = 100000;

std::ostringstream CollectAsText(const prometheus::Registry& registry) {
  std::ostringstream text;
  prometheus::TextSerializer().Serialize(text, registry.Collect());
  return text;
}

void PeerMemory(benchmark::State& state) {
  Isolated(state, []() -> Figures {
    prometheus::Registry registry;
    AddCounters(registry, "warm_up_total", 1, kTags);
    CollectAsText(registry);
    const double base = ResidentBytes();
    AddCounters(registry, "requests_total", kMany, kTags);
    const double made = ResidentBytes();
    ResetPeak();
    CollectAsText(registry);
    const double peak = PeakBytes();
    for (int flush = 1; flush < 10; ++flush) {
      CollectAsText(registry);
    }
    const auto series = static_cast<double>(kMany);
    return {{"bytes_per_series", (made - base) / series},
            {"bytes_per_series_after_10_flushes", (ResidentBytes() - base) / series},
            {"bytes_per_series_at_flush_peak", (peak - base) / series},
            {"flush_growth_per_series", (peak - made) / series}};
  });
}
BENCHMARK(PeerMemory)->Iterations(1);

void PeerMemoryOfLongTags(benchmark::State& state) {
  const auto tags = static_cast<size_t>(state.range(0));
  Isolated(state, [tags]() -> Figures {
    prometheus::Registry registry;
    AddCounters(registry, "warm_up_total", 1, tags);
    const double base = ResidentBytes();
    AddCounters(registry, "requests_total", kMany, tags, Length::k20To60);
    return {{"bytes_per_series", (ResidentBytes() - base) / static_cast<double>(kMany)}};
  });
}
BENCHMARK(PeerMemoryOfLongTags)->ArgName("tags")->Arg(1)->Arg(3)->Arg(8)->Iterations(1);

void PeerCreate(benchmark::State& state) {
  const auto series = static_cast<size_t>(state.range(0));
  Isolated(state, [series]() -> Figures {
    prometheus::Registry registry;
    PeerCounters& family =
        prometheus::BuildCounter().Name("requests_total").Help("requests").Register(registry);
    const auto labels = ForEachSeries([](size_t i) { return LabelsOf(i, kTags); }, series);
    const auto start = ThreadClock::now();
    for (const prometheus::Labels& label : labels) {
      family.Add(label).Increment();
    }
    const std::chrono::duration<double, std::nano> taken = ThreadClock::now() - start;
    return {{"ns_per_series", taken.count() / static_cast<double>(series)}};
  });
}
BENCHMARK(PeerCreate)->ArgName("series")->Arg(10000)->Arg(100000)->Iterations(1);

}  // namespace
}  // namespace tidegate::bench

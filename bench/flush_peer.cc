// What does it cost prometheus-cpp to collect the same series and to write them as text?

#include <benchmark/benchmark.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <chrono>
#include <sstream>
#include <string>

#include "cache_filler.h"
#include "peers.h"
#include "scenarios.h"
#include "thread_clock.h"

namespace tidegate::bench {
namespace {

constexpr size_t kTags = 3;

// One iteration collects everything and writes it to a fresh string. `written` counts the bytes.
void Collect(benchmark::State& state, const prometheus::Registry& registry, size_t series) {
  size_t written = 0;
  for (auto _ : state) {
    std::ostringstream text;
    prometheus::TextSerializer().Serialize(text, registry.Collect());
    written += static_cast<size_t>(text.tellp());
  }
  const auto collected = static_cast<double>(series) * static_cast<double>(state.iterations());
  state.counters["bytes_per_series"] = static_cast<double>(written) / collected;
}

// The same, finding nothing of it in the caches.
void PeerCollectCold(benchmark::State& state) {
  const auto series = static_cast<size_t>(state.range(0));
  prometheus::Registry registry;
  AddCounters(registry, "requests_total", series, kTags);
  CacheFiller filler;
  for (auto _ : state) {
    filler.Fill();
    const auto start = ThreadClock::now();
    std::ostringstream text;
    prometheus::TextSerializer().Serialize(text, registry.Collect());
    const auto taken = ThreadClock::now() - start;
    state.SetIterationTime(std::chrono::duration<double>(taken).count());
  }
}
BENCHMARK(PeerCollectCold)
    ->ArgName("series")
    ->Arg(10000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// As many counters per series as a row has fields.
void PeerCollect(benchmark::State& state, size_t counters) {
  const auto series = static_cast<size_t>(state.range(0));
  prometheus::Registry registry;
  for (size_t i = 0; i < counters; ++i) {
    AddCounters(registry, "field" + std::to_string(i) + "_total", series, kTags);
  }
  Collect(state, registry, series);
}
BENCHMARK_CAPTURE(PeerCollect, counter, 1)
    ->ArgName("series")
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(PeerCollect, four_counters, 4)
    ->ArgName("series")
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);

// 100,000 summaries would take gigabytes: each keeps several buffers of 500 samples.
void PeerCollectSummary(benchmark::State& state) {
  const auto series = static_cast<size_t>(state.range(0));
  prometheus::Registry registry;
  auto& family = prometheus::BuildSummary().Name("latency").Help("latency").Register(registry);
  const std::vector<double> samples = Samples(100);
  for (size_t i = 0; i < series; ++i) {
    prometheus::Summary& summary = family.Add(LabelsOf(i, kTags), PeerQuantiles());
    for (const double sample : samples) {
      summary.Observe(sample);
    }
  }
  Collect(state, registry, series);
}
BENCHMARK(PeerCollectSummary)->ArgName("series")->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace tidegate::bench

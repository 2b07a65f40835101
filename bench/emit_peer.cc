// What do the same emissions cost in prometheus-cpp?

#include <benchmark/benchmark.h>
#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/histogram.h>
#include <prometheus/labels.h>
#include <prometheus/registry.h>
#include <prometheus/summary.h>

#include <string>
#include <vector>

#include "scenarios.h"

namespace tidegate::bench {
namespace {

prometheus::Registry& Registry() {
  static prometheus::Registry& registry = *new prometheus::Registry();
  return registry;
}

prometheus::Labels LabelsOf(size_t series, size_t count) {
  prometheus::Labels labels;
  for (const MetricTag& tag : Tags(series, count)) {
    labels.emplace(tag.key, tag.value);
  }
  return labels;
}

prometheus::Family<prometheus::Counter>& KnownCounters(size_t tags) {
  static const auto make = [](size_t count) -> prometheus::Family<prometheus::Counter>& {
    auto& family = prometheus::BuildCounter()
                       .Name("known" + std::to_string(count) + "_total")
                       .Help("requests")
                       .Register(Registry());
    for (size_t series = 0; series < kSeries; ++series) {
      family.Add(LabelsOf(series, count)).Increment();
    }
    return family;
  };
  static auto& one = make(1);
  static auto& three = make(3);
  return tags == 1 ? one : three;
}

void PeerLabels(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  auto& family = KnownCounters(count);
  const auto labels = ForEachSeries([&](size_t series) { return LabelsOf(series, count); });
  RoundRobin turn(kSeries);
  for (auto _ : state) {
    family.Add(labels[turn.Next()]).Increment();
  }
}
BENCHMARK(PeerLabels)->Arg(1)->Arg(3)->ThreadRange(1, 2)->UseRealTime();

void PeerCounter(benchmark::State& state) {
  prometheus::Counter& counter = KnownCounters(1).Add(LabelsOf(0, 1));
  for (auto _ : state) {
    counter.Increment();
  }
}
BENCHMARK(PeerCounter)->ThreadRange(1, 2)->UseRealTime();

template <class Kind>
void Observe(benchmark::State& state, Kind& cell) {
  const std::vector<double> samples = Samples(1 << 12);
  RoundRobin turn(samples.size());
  for (auto _ : state) {
    cell.Observe(samples[turn.Next()]);
  }
}

void PeerHistogram(benchmark::State& state) {
  prometheus::Histogram cell(Bounds(static_cast<size_t>(state.range(0))));
  Observe(state, cell);
}
BENCHMARK(PeerHistogram)->Arg(10)->Arg(20)->UseRealTime();

void PeerSummary(benchmark::State& state) {
  prometheus::Summary cell(prometheus::Summary::Quantiles{
      {0.5, 0.01}, {0.9, 0.01}, {0.95, 0.01}, {0.99, 0.01}, {0.999, 0.01}});
  Observe(state, cell);
}
BENCHMARK(PeerSummary)->UseRealTime();

}  // namespace
}  // namespace tidegate::bench

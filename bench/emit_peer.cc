// What do the same emissions cost in prometheus-cpp?

#include <benchmark/benchmark.h>
#include <prometheus/histogram.h>

#include <vector>

#include "peers.h"
#include "threads.h"
#include "workload.h"

namespace tidegate::bench {
namespace {

prometheus::Registry& Registry() {
  static prometheus::Registry& registry = *new prometheus::Registry();
  return registry;
}

PeerCounters& KnownCounters(size_t tags) {
  static PeerCounters& one = AddCounters(Registry(), "known1_total", kSeries, 1);
  static PeerCounters& three = AddCounters(Registry(), "known3_total", kSeries, 3);
  return tags == 1 ? one : three;
}

// All threads look up the same series.
void PeerLabelsShared(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  PeerCounters& family = KnownCounters(count);
  const prometheus::Labels labels = LabelsOf(0, count);
  for (auto _ : state) {
    family.Add(labels).Increment();
  }
}
BENCHMARK(PeerLabelsShared)->ArgName("tags")->Arg(1)->Arg(3)->Apply(Threads);

// Each thread looks up a series of its own.
void PeerLabelsOwn(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  PeerCounters& family = KnownCounters(count);
  const prometheus::Labels labels = LabelsOf(static_cast<size_t>(state.thread_index()), count);
  for (auto _ : state) {
    family.Add(labels).Increment();
  }
}
BENCHMARK(PeerLabelsOwn)->ArgName("tags")->Arg(1)->Arg(3)->Apply(Threads);

void PeerCounter(benchmark::State& state) {
  prometheus::Counter& counter = KnownCounters(1).Add(LabelsOf(0, 1));
  for (auto _ : state) {
    counter.Increment();
  }
}
BENCHMARK(PeerCounter)->Apply(Threads);

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
  prometheus::Summary cell(PeerQuantiles());
  Observe(state, cell);
}
BENCHMARK(PeerSummary)->UseRealTime();

}  // namespace
}  // namespace tidegate::bench

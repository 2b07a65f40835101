// What does an emission on a bound series cost? One thread: shared_bench.cc has
// more of them.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "metrics/bound_series.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "sample_loop.h"
#include "scenarios.h"

namespace tidegate::bench {
namespace {

using METRICS::BoundSeries;
using METRICS::Metric;
using METRICS::MetricFieldValue;

// A handle that lives as long as its client, which is never ended.
BoundSeries& BindNew(const std::string& name, const MetricFieldValue& like,
                     METRICS::HistoUtilBase* bounds = nullptr) {
  METRICS::MetricInstanceCfg cfg;
  cfg.name = name;
  cfg.tag_names = TagNames(1);
  cfg.histo = bounds;
  auto& handle = *new BoundSeries();
  const METRICS::ReturnCode code = handle.Bind(&SharedClient().Make(cfg), Tags(0, 1), like);
  if (!handle) {
    std::fprintf(stderr, "not bound: %s\n", METRICS::MetricGetErrorCodeStr(code));
    std::abort();
  }
  return handle;
}

void BoundCounter(benchmark::State& state) {
  static BoundSeries& handle = BindNew("bound_counter", METRICS::IncrCounter(0));
  for (auto _ : state) {
    handle.Emit(1);
  }
}
BENCHMARK(BoundCounter)->UseRealTime();

void BoundCounterDouble(benchmark::State& state) {
  static BoundSeries& handle = BindNew("bound_double", METRICS::IncrCounter(0));
  for (auto _ : state) {
    handle.Emit(0.5);
  }
}
BENCHMARK(BoundCounterDouble)->UseRealTime();

void BoundGauge(benchmark::State& state) {
  static BoundSeries& handle = BindNew("bound_gauge", METRICS::Store(0));
  for (auto _ : state) {
    handle.Emit(1);
  }
}
BENCHMARK(BoundGauge)->UseRealTime();

void EmitSamples(benchmark::State& state, const std::string& metric, BoundSeries& handle) {
  Metric* made = nullptr;
  SharedClient().registry().GetMetric(made, metric);
  const METRICS::CellPtr cell = made->WithTags(Tags(0, 1))->Fields().begin()->second;
  const std::vector<double> samples = Samples(kSamples);
  SampleLoop(state, *cell, [&](size_t i) { handle.Emit(samples[i]); });
}

void BoundTimer(benchmark::State& state) {
  static BoundSeries& handle = BindNew("bound_timer", METRICS::Observe(0));
  EmitSamples(state, "bound_timer", handle);
}
BENCHMARK(BoundTimer)->UseRealTime();

void BoundHistogram(benchmark::State& state) {
  static BoundSeries& handle = []() -> BoundSeries& {
    METRICS::HistoUtilBase bounds(Bounds(10));
    return BindNew("bound_histogram", METRICS::Stat(0), &bounds);
  }();
  EmitSamples(state, "bound_histogram", handle);
}
BENCHMARK(BoundHistogram)->UseRealTime();

}  // namespace
}  // namespace tidegate::bench

// What does a cell alone cost, called as an item calls it?

#include <benchmark/benchmark.h>

#include <vector>

#include "metrics/metric_collector_item.h"
#include "metrics/metric_data.h"
#include "sample_loop.h"
#include "scenarios.h"

namespace tidegate::bench {
namespace {

using METRICS::CellPtr;
using METRICS::MetricCollectorItem;
using METRICS::MetricsType;

template <MetricsType kType>
void CellAdd(benchmark::State& state) {
  static const CellPtr cell = MetricCollectorItem::CreateData(kType, false, 0);
  const long one = 1;
  for (auto _ : state) {
    cell->Emit(one);
  }
}
BENCHMARK_TEMPLATE(CellAdd, MetricsType::kGauge)->Name("CellGauge")->UseRealTime();
BENCHMARK_TEMPLATE(CellAdd, MetricsType::kRate)->Name("CellRate")->UseRealTime();
BENCHMARK_TEMPLATE(CellAdd, MetricsType::kCounter)->Name("CellCounter")->UseRealTime();
BENCHMARK_TEMPLATE(CellAdd, MetricsType::kMeter)->Name("CellMeter")->UseRealTime();
BENCHMARK_TEMPLATE(CellAdd, MetricsType::kDeltaCounter)->Name("CellDeltaCounter")->UseRealTime();

void CellRateDouble(benchmark::State& state) {
  static const CellPtr cell = MetricCollectorItem::CreateData(MetricsType::kRate, false, 0);
  const double half = 0.5;
  for (auto _ : state) {
    cell->Emit(half);
  }
}
BENCHMARK(CellRateDouble)->UseRealTime();

void CellTimer(benchmark::State& state, bool use_ckms) {
  const CellPtr cell = MetricCollectorItem::CreateData(MetricsType::kTimer, use_ckms, 0);
  const std::vector<double> samples = Samples(kSamples);
  SampleLoop(state, *cell, [&](size_t i) { cell->Emit(samples[i]); });
}
BENCHMARK_CAPTURE(CellTimer, exact, false)->UseRealTime();
BENCHMARK_CAPTURE(CellTimer, ckms, true)->UseRealTime();

}  // namespace
}  // namespace tidegate::bench

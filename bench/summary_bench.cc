// What does a sample cost in the cells that an item feeds in its own way? What does draining a
// timer cost, compared with copying its samples to a flat array and sorting that?

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

#include "metrics/metric_histogram.h"
#include "metrics/metric_summary.h"
#include "sample_loop.h"
#include "scenarios.h"

namespace tidegate::bench {
namespace {

void TimerOverOneArray(benchmark::State& state) {
  METRICS::MetricSummaryVecV1 cell;
  const std::vector<double> samples = Samples(kSamples);
  SampleLoop(state, cell, [&](size_t i) { cell.Emit(samples[i]); });
}
BENCHMARK(TimerOverOneArray)->UseRealTime();

void CellHistogram(benchmark::State& state) {
  const std::vector<double> bounds = Bounds(static_cast<size_t>(state.range(0)));
  METRICS::MetricHistogram cell(static_cast<unsigned short>(bounds.size()));
  const std::vector<double> samples = Samples(kSamples);
  SampleLoop(state, cell,
             [&](size_t i) { cell.Emit(METRICS::GetHistoIndex(samples[i], bounds), samples[i]); });
}
BENCHMARK(CellHistogram)->Arg(10)->Arg(20)->UseRealTime();

void CopyAndSort(benchmark::State& state) {
  const std::vector<double> samples = Samples(kDrainedAt);
  for (auto _ : state) {
    std::vector<double> flat(samples);
    std::sort(flat.begin(), flat.end());
    benchmark::DoNotOptimize(flat.data());
  }
}
BENCHMARK(CopyAndSort)->Unit(benchmark::kMicrosecond);

void DrainTimer(benchmark::State& state) {
  const std::vector<double> samples = Samples(kDrainedAt);
  METRICS::MetricSummaryVecV2 cell;
  for (auto _ : state) {
    state.PauseTiming();
    for (const double sample : samples) {
      cell.Emit(sample);
    }
    state.ResumeTiming();
    benchmark::DoNotOptimize(cell.Send(1));
  }
}
BENCHMARK(DrainTimer)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace tidegate::bench

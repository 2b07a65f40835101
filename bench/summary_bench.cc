// What does a sample of a timer or histogram cost beside the lock it takes, and what does draining
// a timer cost beside copying its samples to a flat array and sorting that?

#include <benchmark/benchmark.h>

#include <algorithm>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <vector>

#include "metrics/metric_histogram.h"
#include "metrics/metric_summary.h"

namespace {

constexpr size_t kDrained = 100000;

std::vector<double> RandomSamples(size_t count) {
  std::mt19937_64 random(20260101);
  std::uniform_real_distribution<double> uniform(0.0, 1e6);
  std::vector<double> samples(count);
  for (double& sample : samples) {
    sample = uniform(random);
  }
  return samples;
}

void MutexRoundTrip(benchmark::State& state) {
  std::mutex lock;
  for (auto _ : state) {
    lock.lock();
    benchmark::DoNotOptimize(lock);
    lock.unlock();
  }
}
BENCHMARK(MutexRoundTrip);

void SharedLockRoundTrip(benchmark::State& state) {
  std::shared_mutex lock;
  for (auto _ : state) {
    lock.lock_shared();
    benchmark::DoNotOptimize(lock);
    lock.unlock_shared();
  }
}
BENCHMARK(SharedLockRoundTrip);

template <class Cell>
void Sample(benchmark::State& state) {
  Cell cell;
  METRICS::MetricBasicData& base = cell;
  const std::vector<double> samples = RandomSamples(1 << 12);
  size_t i = 0;
  for (auto _ : state) {
    base.Emit(samples[i & (samples.size() - 1)]);
    if (++i == kDrained) {
      state.PauseTiming();
      cell.Send(1);
      i = 0;
      state.ResumeTiming();
    }
  }
}
BENCHMARK_TEMPLATE(Sample, METRICS::MetricSummaryVecV2);
BENCHMARK_TEMPLATE(Sample, METRICS::MetricSummaryVecV1);
BENCHMARK_TEMPLATE(Sample, METRICS::MetricSummaryCKMS);

void HistogramSample(benchmark::State& state) {
  std::vector<double> bounds;
  bounds.reserve(static_cast<size_t>(state.range(0)));
  for (int i = 0; i < state.range(0); ++i) {
    bounds.push_back(1e6 / static_cast<double>(state.range(0)) * i);
  }
  METRICS::MetricHistogram cell(static_cast<unsigned short>(bounds.size()));
  const std::vector<double> samples = RandomSamples(1 << 12);
  size_t i = 0;
  for (auto _ : state) {
    const double value = samples[i++ & (samples.size() - 1)];
    cell.Emit(METRICS::GetHistoIndex(value, bounds), value);
  }
}
BENCHMARK(HistogramSample)->Arg(10)->Arg(20);

void CopyAndSort(benchmark::State& state) {
  const std::vector<double> samples = RandomSamples(kDrained);
  for (auto _ : state) {
    std::vector<double> flat(samples);
    std::sort(flat.begin(), flat.end());
    benchmark::DoNotOptimize(flat.data());
  }
}
BENCHMARK(CopyAndSort)->Unit(benchmark::kMicrosecond);

void DrainSummary(benchmark::State& state) {
  const std::vector<double> samples = RandomSamples(kDrained);
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
BENCHMARK(DrainSummary)->Unit(benchmark::kMicrosecond);

}  // namespace

// What does an emission cost where several threads count, on one series or each on its own?
//
// At 8 threads on two cores each thread has a quarter of a core, so four times the time of 2
// threads is what the machine takes.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "metrics/bound_series.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_data.h"
#include "metrics/metric_method.h"
#include "sample_loop.h"
#include "scenarios.h"
#include "threads.h"

namespace tidegate::bench {
namespace {

using METRICS::BoundSeries;
using METRICS::Incr;
using METRICS::Metric;
using METRICS::MetricFieldValue;
using ItemPtr = std::shared_ptr<METRICS::MetricCollectorItem>;

constexpr size_t kThreads = 8;
constexpr size_t kBounds = 20;

// Index of the series that the calling thread emits on.
enum class Series : uint8_t { kShared, kOwn };
size_t SeriesOf(const benchmark::State& state, Series series) {
  return series == Series::kShared ? 0 : static_cast<size_t>(state.thread_index());
}

// A metric with a series for each thread, all of which have a value like `like`.
Metric& MakeKnown(const std::string& name, size_t tags, const MetricFieldValue& like) {
  METRICS::HistoUtilBase bounds(Bounds(kBounds));
  METRICS::MetricInstanceCfg cfg;
  cfg.name = name;
  cfg.tag_names = TagNames(tags);
  cfg.histo = like.type == METRICS::MetricsType::kHistogram ? &bounds : nullptr;
  Metric& metric = SharedClient().Make(cfg);
  for (size_t series = 0; series < kThreads; ++series) {
    metric.WithTags(Tags(series, tags))->Emit(like);
  }
  return metric;
}

Metric& Rates(size_t tags) {
  static Metric& one = MakeKnown("rate1", 1, Incr(1));
  static Metric& three = MakeKnown("rate3", 3, Incr(1));
  return tags == 1 ? one : three;
}

// Calls `emit(metric, tags)` with the tags of one known series.
template <class Emit>
void EmitOnKnown(benchmark::State& state, Series series, Emit emit) {
  const auto count = static_cast<size_t>(state.range(0));
  Metric& metric = Rates(count);
  const auto tags = Tags(SeriesOf(state, series), count);
  for (auto _ : state) {
    emit(metric, tags);
  }
}

void OneAndThreeTags(benchmark::internal::Benchmark* bench) {
  bench->ArgName("tags")->Arg(1)->Arg(3);
}

void WithTags(benchmark::State& state, Series series) {
  EmitOnKnown(state, series,
              [](Metric& metric, const auto& tags) { metric.WithTags(tags)->Emit(Incr(1)); });
}
BENCHMARK_CAPTURE(WithTags, shared, Series::kShared)->Apply(OneAndThreeTags)->Apply(Threads);
BENCHMARK_CAPTURE(WithTags, own, Series::kOwn)->Apply(OneAndThreeTags)->Apply(Threads);

void OneCall(benchmark::State& state, Series series) {
  EmitOnKnown(state, series, [](Metric& metric, const auto& tags) { metric.Emit(tags, Incr(1)); });
}
BENCHMARK_CAPTURE(OneCall, shared, Series::kShared)->Apply(OneAndThreeTags)->Apply(Threads);
BENCHMARK_CAPTURE(OneCall, own, Series::kOwn)->Apply(OneAndThreeTags)->Apply(Threads);

void HeldItem(benchmark::State& state, Series series) {
  const ItemPtr item = Rates(1).WithTags(Tags(SeriesOf(state, series), 1));
  for (auto _ : state) {
    item->Emit(Incr(1));
  }
}
BENCHMARK_CAPTURE(HeldItem, shared, Series::kShared)->Apply(Threads);
BENCHMARK_CAPTURE(HeldItem, own, Series::kOwn)->Apply(Threads);

// Samples on the one cell of the item that all threads share, drained now and then.
template <class Emit>
void EmitSamples(benchmark::State& state, Metric& metric, Emit emit) {
  const ItemPtr item = metric.WithTags(Tags(0, 1));
  const METRICS::CellPtr cell = item->Fields().begin()->second;
  const std::vector<double> samples = Samples(kSamples);
  SampleLoop(state, *cell, [&](size_t i) { emit(*item, samples[i]); });
}

void HeldHistogram(benchmark::State& state) {
  static Metric& metric = MakeKnown("held_histogram", 1, METRICS::Stat(1.0));
  EmitSamples(state, metric, [](auto& item, double sample) { item.Emit(METRICS::Stat(sample)); });
}
BENCHMARK(HeldHistogram)->Apply(Threads);

// A handle for each thread; the series live as long as the client, which is never ended.
class Handles {
 public:
  Handles(const std::string& name, const MetricFieldValue& like)
      : metric_(MakeKnown(name, 1, like)), handles_(kThreads) {
    for (size_t series = 0; series < kThreads; ++series) {
      handles_[series].Bind(&metric_, Tags(series, 1), like);
    }
  }

  BoundSeries& operator[](size_t series) { return handles_[series]; }
  Metric& metric() { return metric_; }

 private:
  Metric& metric_;
  std::vector<BoundSeries> handles_;
};

template <class Number>
void EmitBound(benchmark::State& state, Handles& handles, Series series, Number number) {
  BoundSeries& handle = handles[SeriesOf(state, series)];
  for (auto _ : state) {
    handle.Emit(number);
  }
}

void BoundCounter(benchmark::State& state, Series series) {
  static Handles& handles = *new Handles("bound_counter", METRICS::IncrCounter(0));
  EmitBound(state, handles, series, 1L);
}
BENCHMARK_CAPTURE(BoundCounter, shared, Series::kShared)->Apply(Threads);
BENCHMARK_CAPTURE(BoundCounter, own, Series::kOwn)->Apply(Threads);

void BoundDouble(benchmark::State& state, Series series) {
  static Handles& handles = *new Handles("bound_double", METRICS::IncrCounter(0));
  EmitBound(state, handles, series, 0.5);
}
BENCHMARK_CAPTURE(BoundDouble, shared, Series::kShared)->Apply(Threads);

void BoundGauge(benchmark::State& state, Series series) {
  static Handles& handles = *new Handles("bound_gauge", METRICS::Store(0));
  EmitBound(state, handles, series, 1L);
}
BENCHMARK_CAPTURE(BoundGauge, shared, Series::kShared)->Apply(Threads);

void EmitBoundSamples(benchmark::State& state, Handles& handles) {
  BoundSeries& handle = handles[0];
  EmitSamples(state, handles.metric(), [&](auto& /*item*/, double sample) { handle.Emit(sample); });
}

void BoundTimer(benchmark::State& state) {
  static Handles& handles = *new Handles("bound_timer", METRICS::Observe(0));
  EmitBoundSamples(state, handles);
}
BENCHMARK(BoundTimer)->Apply(Threads);

void BoundHistogram(benchmark::State& state) {
  static Handles& handles = *new Handles("bound_histogram", METRICS::Stat(0));
  EmitBoundSamples(state, handles);
}
BENCHMARK(BoundHistogram)->Apply(Threads);

}  // namespace
}  // namespace tidegate::bench

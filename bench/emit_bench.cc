// What does one emission cost the application's thread, from tags to a known series and on an item
// that it holds?
//
// Tags and samples are made before, as a service keeps them; one integer is made into a value on
// every call, unless the name of the benchmark says otherwise. One thread: shared_bench.cc has more
// of them, and tags_bench.cc other tags.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "sample_loop.h"
#include "scenarios.h"

namespace tidegate::bench {
namespace {

using METRICS::Incr;
using METRICS::Metric;
using METRICS::MetricFieldValue;
using METRICS::MetricsType;
using METRICS::Observe;
using METRICS::Stat;
using ItemPtr = std::shared_ptr<METRICS::MetricCollectorItem>;

// The metric of the known series with `tags` tags, all of which exist.
Metric& KnownSeries(size_t tags) {
  static const std::vector<Metric*>& metrics = *new auto([] {
    std::vector<Metric*> made;
    for (const size_t count : {size_t{1}, size_t{3}}) {
      Metric& metric = SharedClient().Make("known" + std::to_string(count), count);
      for (size_t series = 0; series < kSeries; ++series) {
        metric.WithTagValues(TagValues(series, count))->Emit({Incr(1)});
      }
      made.push_back(&metric);
    }
    return made;
  }());
  return *metrics[tags == 1 ? 0 : 1];
}

// Calls `emit(metric, tags of the series)` round robin.
template <class MakeTags, class Emit>
void EmitOnKnown(benchmark::State& state, MakeTags make_tags, Emit emit) {
  const auto count = static_cast<size_t>(state.range(0));
  Metric& metric = KnownSeries(count);
  const auto tags = ForEachSeries([&](size_t series) { return make_tags(series, count); });
  RoundRobin turn(kSeries);
  for (auto _ : state) {
    emit(metric, tags[turn.Next()]);
  }
}

void WithTagValues(benchmark::State& state) {
  const auto make_values = [](size_t series, size_t count) { return TagValues(series, count); };
  EmitOnKnown(state, make_values, [](Metric& metric, const auto& values) {
    metric.WithTagValues(values)->Emit(Incr(1));
  });
}
BENCHMARK(WithTagValues)->Arg(1)->Arg(3)->UseRealTime();

void WithTagMap(benchmark::State& state) {
  const auto make_map = [](size_t series, size_t count) {
    std::unordered_map<std::string, std::string> map;
    for (MetricTag& tag : Tags(series, count)) {
      map.emplace(std::move(tag.key), std::move(tag.value));
    }
    return map;
  };
  EmitOnKnown(state, make_map,
              [](Metric& metric, const auto& tags) { metric.WithTagMap(tags)->Emit(Incr(1)); });
}
BENCHMARK(WithTagMap)->Arg(1)->Arg(3)->UseRealTime();

// With a list of one value, which the caller makes on every call.
void WithTagsNewList(benchmark::State& state) {
  const auto make_tags = [](size_t series, size_t count) { return Tags(series, count); };
  EmitOnKnown(state, make_tags, [](Metric& metric, const auto& tags) {
    metric.WithTags(tags)->Emit(std::vector<MetricFieldValue>{Incr(1)});
  });
}
BENCHMARK(WithTagsNewList)->Arg(1)->Arg(3)->UseRealTime();

template <class Emit>
void EmitOnHeld(benchmark::State& state, Emit emit) {
  const ItemPtr item = KnownSeries(1).WithTagValues(TagValues(0, 1));
  for (auto _ : state) {
    emit(*item);
  }
}

void HeldItem(benchmark::State& state) {
  EmitOnHeld(state, [value = Incr(1)](auto& item) { item.Emit(value); });
}
BENCHMARK(HeldItem)->UseRealTime();

void HeldItemVerb(benchmark::State& state) {
  EmitOnHeld(state, [](auto& item) { item.Emit(Incr(1)); });
}
BENCHMARK(HeldItemVerb)->UseRealTime();

void HeldItemList(benchmark::State& state) {
  EmitOnHeld(state,
             [values = std::vector<MetricFieldValue>{Incr(1)}](auto& item) { item.Emit(values); });
}
BENCHMARK(HeldItemList)->UseRealTime();

// Emits samples on a held item that has but this one cell.
void EmitSamples(benchmark::State& state, const ItemPtr& item,
                 MetricFieldValue (*verb)(double value)) {
  std::vector<MetricFieldValue> values;
  values.reserve(kSamples);
  for (const double sample : Samples(kSamples)) {
    values.push_back(verb(sample));
  }
  item->Emit(values[0]);
  const METRICS::CellPtr cell = item->Fields().begin()->second;
  SampleLoop(state, *cell, [&](size_t i) { item->Emit(values[i]); });
}

void HeldTimer(benchmark::State& state) {
  static Metric& metric = SharedClient().Make("timer", 0);
  EmitSamples(state, metric.WithTags({}), Observe);
}
BENCHMARK(HeldTimer)->UseRealTime();

void HeldTimerCkms(benchmark::State& state) {
  static Metric& metric = []() -> Metric& {
    Metric& made = SharedClient().Make("ckms", 0);
    made.SetUseCkms(true);
    return made;
  }();
  EmitSamples(state, metric.WithTags({}), Observe);
}
BENCHMARK(HeldTimerCkms)->UseRealTime();

void HeldHistogram(benchmark::State& state) {
  static const auto make = [](size_t count) {
    METRICS::HistoUtilBase bounds(Bounds(count));
    METRICS::MetricInstanceCfg cfg;
    cfg.name = "histogram" + std::to_string(count);
    cfg.histo = &bounds;
    return &SharedClient().Make(cfg);
  };
  static Metric* const ten = make(10);
  static Metric* const twenty = make(20);
  EmitSamples(state, (state.range(0) == 10 ? ten : twenty)->WithTags({}), Stat);
}
BENCHMARK(HeldHistogram)->Arg(10)->Arg(20)->UseRealTime();

constexpr size_t kFields = 8;

Metric& Row() {
  static Metric& metric = []() -> Metric& {
    METRICS::MetricInstanceCfg cfg;
    cfg.name = "row";
    for (size_t i = 0; i < kFields; ++i) {
      cfg.fields.push_back({"field" + std::to_string(i), MetricsType::kRate, nullptr});
    }
    return SharedClient().Make(cfg);
  }();
  return metric;
}

void HeldRow(benchmark::State& state) {
  const ItemPtr item = Row().WithTags({});
  std::vector<MetricFieldValue> values;
  for (size_t i = 0; i < kFields; ++i) {
    values.push_back(METRICS::WithField("field" + std::to_string(i), Incr(1)));
  }
  for (auto _ : state) {
    item->Emit(values);
  }
}
BENCHMARK(HeldRow)->UseRealTime();

void HeldRowMap(benchmark::State& state) {
  const ItemPtr item = Row().WithTags({});
  std::unordered_map<std::string, double> values;
  for (size_t i = 0; i < kFields; ++i) {
    values.emplace("field" + std::to_string(i), 1.0);
  }
  for (auto _ : state) {
    item->EmitMap(values);
  }
}
BENCHMARK(HeldRowMap)->UseRealTime();

// The call takes its list of tags over, so the caller builds it anew every time.
void CompatibleEmit(benchmark::State& state) {
  static Metric& metric = SharedClient().MakeCompatible("compatible", MetricsType::kRate);
  const auto tags = ForEachSeries([](size_t series) { return TagValues(series, 1)[0]; });
  const std::string key = TagNames(1)[0];
  RoundRobin turn(kSeries);
  for (auto _ : state) {
    metric.CEmit(1, {key, tags[turn.Next()]});
  }
}
BENCHMARK(CompatibleEmit)->UseRealTime();

}  // namespace
}  // namespace tidegate::bench

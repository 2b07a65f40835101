// What does a series, and a sample of a timer, cost in resident memory, and what do a million
// series cost whoever makes, walks and drops them?
//
// Every scenario runs once, in a child of its own that starts with a heap nobody has used, and
// hands its figures back. Iterations and times of Google Benchmark mean nothing here; the counters
// do.

#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <vector>

#include "dropping_sender.h"
#include "expiry_pass.h"
#include "isolated.h"
#include "metrics/impl/metric_impl.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_data.h"
#include "metrics/metric_method.h"
#include "scenarios.h"
#include "thread_clock.h"

namespace tidegate::bench {
namespace {

using METRICS::Incr;
using METRICS::Metric;
using METRICS::MetricFieldValue;
using ItemPtr = std::shared_ptr<METRICS::MetricCollectorItem>;
using std::chrono::steady_clock;

constexpr size_t kTags = 3;
constexpr size_t kMany = 100000;
constexpr size_t kMillion = 1000000;

double Nanos(std::chrono::nanoseconds time) { return static_cast<double>(time.count()); }

double Millis(std::chrono::nanoseconds time) { return Nanos(time) / 1e6; }

// One rate for each of `series` series, without a list of tags for all of them in memory.
void EmitOnEach(Metric& metric, size_t series) {
  const std::vector<MetricFieldValue> values{Incr(1)};
  for (size_t i = 0; i < series; ++i) {
    metric.WithTagValues(TagValues(i, kTags))->Emit(values);
  }
}

// The encoder's buffers, thread-local storage and the metric's first series.
void WarmUp(Client& client, Metric& metric, DroppingSender& sender) {
  metric.WithTagValues({"first", "first", "first"})->Emit({Incr(1)});
  FlushOnce(sender, CollectorsOf(client));
}

void MemoryOfRates(benchmark::State& state, bool pre_encode) {
  Isolated(state, [pre_encode]() -> Figures {
    Client::Options options;
    options.core.pre_encode_tags = pre_encode;
    Client client(options);
    DroppingSender sender(client);
    Metric& metric = client.Make("rate", kTags);
    WarmUp(client, metric, sender);
    const double base = ResidentBytes();
    EmitOnEach(metric, kMany);
    const double made = ResidentBytes();
    ResetPeak();
    FlushOnce(sender, CollectorsOf(client));
    const double peak = PeakBytes();
    for (int flush = 1; flush < 10; ++flush) {
      EmitOnEach(metric, kMany);
      FlushOnce(sender, CollectorsOf(client));
    }
    const double flushed = ResidentBytes();
    const auto series = static_cast<double>(kMany);
    return {{"bytes_per_series", (made - base) / series},
            {"bytes_per_series_after_10_flushes", (flushed - base) / series},
            {"bytes_per_series_at_flush_peak", (peak - base) / series},
            {"flush_growth_per_series", (peak - made) / series}};
  });
}
BENCHMARK_CAPTURE(MemoryOfRates, tags_encoded_at_flush, false)->Iterations(1);
BENCHMARK_CAPTURE(MemoryOfRates, tags_encoded_ahead, true)->Iterations(1);

// With values of 20 to 60 bytes.
void MemoryOfLongTags(benchmark::State& state) {
  const auto tags = static_cast<size_t>(state.range(0));
  Isolated(state, [tags]() -> Figures {
    Client client;
    Metric& metric = client.Make("rate", tags);
    const auto emit_on = [&](size_t series) {
      metric.WithTagValues(TagValues(series, tags, Length::k20To60))->Emit(Incr(1));
    };
    emit_on(kMany);
    const double base = ResidentBytes();
    for (size_t series = 0; series < kMany; ++series) {
      emit_on(series);
    }
    return {{"bytes_per_series", (ResidentBytes() - base) / static_cast<double>(kMany)}};
  });
}
BENCHMARK(MemoryOfLongTags)->ArgName("tags")->Arg(1)->Arg(3)->Arg(8)->Iterations(1);

// Of one busy cell, and of many that get few samples and thus fill no block.
void MemoryOfSamples(benchmark::State& state) {
  const auto series = static_cast<size_t>(state.range(0));
  const auto samples = static_cast<size_t>(state.range(1));
  Isolated(state, [series, samples]() -> Figures {
    Client client;
    Metric& metric = client.Make("timer", kTags);
    const auto items =
        ForEachSeries([&](size_t i) { return metric.WithTagValues(TagValues(i, kTags)); }, series);
    const std::vector<MetricFieldValue> value{METRICS::Observe(1.5)};
    for (const ItemPtr& item : items) {
      item->Emit(value);
      item->Fields().begin()->second->Send(1);
    }
    const double base = ResidentBytes();
    for (size_t i = 0; i < samples; ++i) {
      for (const ItemPtr& item : items) {
        item->Emit(value);
      }
    }
    const auto count = static_cast<double>(series * samples);
    return {{"bytes_per_sample", (ResidentBytes() - base) / count}};
  });
}
BENCHMARK(MemoryOfSamples)
    ->ArgNames({"series", "samples"})
    ->Args({1, 1000000})
    ->Args({1000, 1000})
    ->Args({10000, 100})
    ->Iterations(1);

// CPU time from tags to the first value, the growth of the table included.
void CreateSeries(benchmark::State& state) {
  const auto series = static_cast<size_t>(state.range(0));
  Isolated(state, [series]() -> Figures {
    Client client;
    Metric& metric = client.Make("rate", kTags);
    const auto tags = ForEachSeries([](size_t i) { return Tags(i, kTags); }, series);
    const std::vector<MetricFieldValue> values{Incr(1)};
    const auto start = ThreadClock::now();
    for (const auto& tag : tags) {
      metric.WithTags(tag)->Emit(values);
    }
    return {{"ns_per_series", Nanos(ThreadClock::now() - start) / static_cast<double>(series)}};
  });
}
BENCHMARK(CreateSeries)->ArgName("series")->Arg(10000)->Arg(100000)->Iterations(1);

void AMillionSeries(benchmark::State& state) {
  const auto series = static_cast<size_t>(state.range(0));
  Isolated(state, [series]() -> Figures {
    Client client;
    Metric& metric = client.Make("rate", kTags);
    const double base = ResidentBytes();
    EmitOnEach(metric, series);
    const double made = ResidentBytes();
    ResetPeak();
    auto start = steady_clock::now();
    std::vector<METRICS::Series> all = metric.impl_->collector_->GetAll();
    const double get_all = Millis(steady_clock::now() - start);
    const double get_all_bytes = PeakBytes() - made;

    const ItemPtr first = all.front().second;
    first->active_ = false;
    const double live_pass = ExpiryPassMillis(client, *first);
    for (const auto& [tags, item] : all) {
      item->last_update_ = 0;
    }
    all.clear();
    const double idle_pass = ExpiryPassMillis(client, *first);
    const auto left = static_cast<double>(metric.impl_->GetSeriesCount());

    EmitOnEach(metric, series);
    start = steady_clock::now();
    client.registry().Block();
    const double block = Millis(steady_clock::now() - start);
    return {{"bytes_per_series", (made - base) / static_cast<double>(series)},
            {"get_all_ms", get_all},
            {"get_all_bytes_per_series", get_all_bytes / static_cast<double>(series)},
            {"expiry_pass_live_ms", live_pass},
            {"expiry_pass_idle_ms", idle_pass},
            {"left_after_idle_pass", left},
            {"block_ms", block}};
  });
}
BENCHMARK(AMillionSeries)->ArgName("series")->Arg(kMillion)->Iterations(1);

}  // namespace
}  // namespace tidegate::bench

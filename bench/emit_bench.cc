// What does one emission cost the application's thread, from a known series to a held item and to
// the cell alone, beside the plain primitives that it is made of?

#include <benchmark/benchmark.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "metrics/metric_client.h"
#include "metrics/metric_data.h"
#include "metrics/metric_method.h"
#include "tidegate/mconfiger_impl_base.h"

namespace {

using METRICS::Incr;
using METRICS::Metric;
using METRICS::MetricClient;
using METRICS::MetricFieldValue;

class BenchConfiger final : public tidegate::MConfigerImplBase {
 public:
  void Start() override {}
  void Stop() override {}
  std::pair<bool, int> GetTenantInterval(const std::string& /*tenant*/) override {
    return {true, 60};
  }
  std::string GetSinkName() override { return {}; }
};

constexpr size_t kSeries = 100;
constexpr size_t kMaxTags = 3;

/// One client for all benchmarks of the process; nothing listens for its packets.
class Fixture {
 public:
  Fixture() {
    METRICS::g_metricsLogLevel = 4;
    client_.Init(new BenchConfiger, nullptr, nullptr, {});
    for (size_t tags = 1; tags <= kMaxTags; ++tags) {
      METRICS::MetricRegistryCfg registry;
      registry.tenant = "bench";
      METRICS::MetricInstanceCfg metric;
      metric.name = "requests" + std::to_string(tags);
      for (size_t i = 0; i < tags; ++i) {
        metric.tag_names.push_back("tagname" + std::to_string(i));
      }
      metrics_.push_back(client_.CreateMetric(registry, metric).metric);
    }
  }

  Metric& WithTagCount(size_t tags) { return *metrics_[tags - 1]; }

  static std::vector<std::vector<tidegate::MetricTag>> MakeTags(size_t tags) {
    std::vector<std::vector<tidegate::MetricTag>> all(kSeries);
    for (size_t series = 0; series < kSeries; ++series) {
      for (size_t i = 0; i < tags; ++i) {
        all[series].emplace_back("tagname" + std::to_string(i),
                                 "tag-val-" + std::to_string(series));
      }
    }
    return all;
  }

 private:
  MetricClient client_;
  std::vector<Metric*> metrics_;
};

Fixture& Shared() {
  static Fixture& fixture = *new Fixture();
  return fixture;
}

void LockedAdd(benchmark::State& state) {
  static std::atomic<long> sum{0};
  for (auto _ : state) {
    sum.fetch_add(1, std::memory_order_relaxed);
  }
}
BENCHMARK(LockedAdd)->ThreadRange(1, 2)->UseRealTime();

void SharedLockRoundTrip(benchmark::State& state) {
  static std::shared_mutex lock;
  for (auto _ : state) {
    lock.lock_shared();
    lock.unlock_shared();
  }
}
BENCHMARK(SharedLockRoundTrip)->ThreadRange(1, 2)->UseRealTime();

void ReadClock(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(::time(nullptr));
  }
}
BENCHMARK(ReadClock);

void RateCell(benchmark::State& state) {
  static METRICS::MetricRate cell;
  const long one = 1;
  for (auto _ : state) {
    cell.Emit(one);
  }
}
BENCHMARK(RateCell)->ThreadRange(1, 2)->UseRealTime();

void HeldItem(benchmark::State& state) {
  const auto item = Shared().WithTagCount(1).WithTagValues({"held"});
  const std::vector<MetricFieldValue> values{Incr(1)};
  for (auto _ : state) {
    item->Emit(values);
  }
}
BENCHMARK(HeldItem)->ThreadRange(1, 2)->UseRealTime();

void WithTagsAndEmit(benchmark::State& state) {
  Metric& metric = Shared().WithTagCount(static_cast<size_t>(state.range(0)));
  const auto tags = Fixture::MakeTags(static_cast<size_t>(state.range(0)));
  const std::vector<MetricFieldValue> values{Incr(1)};
  size_t next = 0;
  for (auto _ : state) {
    metric.WithTags(tags[next])->Emit(values);
    next = next + 1 == kSeries ? 0 : next + 1;
  }
}
BENCHMARK(WithTagsAndEmit)->Arg(1)->Arg(3)->ThreadRange(1, 2)->UseRealTime();

}  // namespace

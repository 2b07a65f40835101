// What does a flush cost, in time and in bytes, for each series that has something to report?
//
// One iteration is one flush. Before each, outside the timed region, every series is fed and
// every cell thus reports; totals are not among them, so no series has a second point. A flush that
// is dropped waits for nothing and is told in CPU time, one that is sent in wall time. A cold one
// finds nothing of its series in the caches, as after an interval of other work.

#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "cache_filler.h"
#include "dropping_sender.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "metrics/metric_sender.h"
#include "metrics/metric_sender_manager.h"
#include "scenarios.h"
#include "testing/listening_agent.h"
#include "testing/temp_dir.h"
#include "thread_clock.h"

namespace tidegate::bench {
namespace {

using METRICS::Incr;
using METRICS::Metric;
using METRICS::MetricFieldValue;
using METRICS::MetricSender;
using ItemPtr = std::shared_ptr<METRICS::MetricCollectorItem>;
using Values = std::vector<MetricFieldValue>;

constexpr size_t kTags = 3;
constexpr size_t kTimerSamples = 100;

// How a scenario makes its metric, and the values that each of its series gets before a flush.
struct Scenario {
  Metric& (*make)(Client& client);
  Values (*feed)();
};

Values RowValues(size_t fields) {
  Values values;
  for (size_t i = 0; i < fields; ++i) {
    values.push_back(METRICS::WithField("field" + std::to_string(i), Incr(1)));
  }
  return values;
}

constexpr size_t kFields = 4;

const Scenario kRate{[](Client& client) -> Metric& { return client.Make("rate", kTags); },
                     [] { return Values{Incr(1)}; }};

const Scenario kRow{[](Client& client) -> Metric& {
                      METRICS::MetricInstanceCfg cfg;
                      cfg.name = "row";
                      cfg.tag_names = TagNames(kTags);
                      for (const MetricFieldValue& value : RowValues(kFields)) {
                        cfg.fields.push_back({value.name, value.type, nullptr});
                      }
                      return client.Make(cfg);
                    },
                    [] { return RowValues(kFields); }};

const Scenario kTimer{[](Client& client) -> Metric& { return client.Make("timer", kTags); },
                      [] {
                        Values values;
                        for (const double sample : Samples(kTimerSamples)) {
                          values.push_back(METRICS::Observe(sample));
                        }
                        return values;
                      }};

// The series of a scenario, made and held.
std::vector<ItemPtr> MakeSeries(Metric& metric, size_t count) {
  return ForEachSeries([&](size_t i) { return metric.WithTagValues(TagValues(i, kTags)); }, count);
}

// Flushes over and over with `sender`, and answers how many series that were. `between` is called
// before each flush, once the series are fed.
template <class Clock, class Between>
double Flush(benchmark::State& state, const Scenario& scenario, Client& client,
             MetricSender& sender, Between between) {
  const auto series = static_cast<size_t>(state.range(0));
  const std::vector<ItemPtr> items = MakeSeries(scenario.make(client), series);
  const Values values = scenario.feed();
  const METRICS::CollectorList collectors = CollectorsOf(client);
  std::chrono::duration<double, std::nano> total{0};
  for (auto _ : state) {
    for (const ItemPtr& item : items) {
      item->Emit(values);
    }
    between();
    const auto start = Clock::now();
    FlushOnce(sender, collectors);
    const auto taken = Clock::now() - start;
    state.SetIterationTime(std::chrono::duration<double>(taken).count());
    total += taken;
  }
  const auto flushed = static_cast<double>(series) * static_cast<double>(state.iterations());
  state.counters["ns_per_series"] = total.count() / flushed;
  return flushed;
}

void Nothing() {}

Client::Options OptionsOf(const benchmark::State& state) {
  Client::Options options;
  options.core.pre_encode_tags = state.range(1) != 0;
  return options;
}

void FlushDropped(benchmark::State& state, const Scenario& scenario) {
  Client client(OptionsOf(state));
  DroppingSender sender(client);
  const double flushed = Flush<ThreadClock>(state, scenario, client, sender, Nothing);
  state.counters["bytes_per_series"] = static_cast<double>(sender.bytes) / flushed;
}

void FlushCold(benchmark::State& state, const Scenario& scenario) {
  Client client(OptionsOf(state));
  DroppingSender sender(client);
  CacheFiller filler;
  Flush<ThreadClock>(state, scenario, client, sender, [&filler] { filler.Fill(); });
}

// A packet that the library gave up on is missing in the bytes.
void FlushSent(benchmark::State& state, const Scenario& scenario) {
  const test::TempDir dir;
  size_t bytes = 0;
  test::ListeningAgent agent(dir.File("s"), [&bytes](const char* /*packet*/, size_t size) {
    bytes += size;
    return true;
  });
  double flushed = 0;
  {
    Client::Options options = OptionsOf(state);
    options.socket = agent.path();
    Client client(options);
    // The client's own sender, whose thread sleeps through the benchmark.
    MetricSender* sender = nullptr;
    client->sender_manager_->GetSender(sender, kTenant);
    flushed = Flush<std::chrono::steady_clock>(state, scenario, client, *sender, Nothing);
  }
  agent.Drain();
  state.counters["bytes_per_series"] = static_cast<double>(bytes) / flushed;
}

constexpr int64_t kSmall = 10000;
constexpr int64_t kLarge = 100000;

void Sizes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"series", "pre_encode"})
      ->ArgsProduct({{kSmall, kLarge}, {0, 1}})
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

BENCHMARK_CAPTURE(FlushDropped, rate, kRate)->Apply(Sizes);
BENCHMARK_CAPTURE(FlushDropped, row, kRow)->Apply(Sizes);
BENCHMARK_CAPTURE(FlushDropped, timer, kTimer)->Apply(Sizes);
BENCHMARK_CAPTURE(FlushCold, rate, kRate)->Apply(Sizes);
BENCHMARK_CAPTURE(FlushCold, row, kRow)->Apply(Sizes);
BENCHMARK_CAPTURE(FlushSent, rate, kRate)->Apply(Sizes);
BENCHMARK_CAPTURE(FlushSent, row, kRow)->Apply(Sizes);
BENCHMARK_CAPTURE(FlushSent, timer, kTimer)->Apply(Sizes);

}  // namespace
}  // namespace tidegate::bench

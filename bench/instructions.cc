// How many instructions does one emission on a known series take?
//
// To be run under callgrind by instructions.py, with collection off at the start: each region
// leaves a dump of its own. Prints the name and the number of operations of each. The counts repeat
// exactly, whatever else the machine does.

#include <valgrind/callgrind.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "metrics/bound_series.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "scenarios.h"
#include "tidegate/service_metrics.h"

namespace {

using METRICS::Incr;
using namespace tidegate::bench;

constexpr size_t kOperations = 10000;
// The places of several series in a table differ from process to process, with the seed of the
// hash, and so do the counts.
constexpr size_t kCountedSeries = 1;

// Counts `operation(i)` for i round robin over the series, which have been visited often enough:
// what is made, bound or biased on first use stays out.
template <class Operation>
void Count(const char* name, Operation operation) {
  for (size_t i = 0; i < 100; ++i) {
    operation(i % kCountedSeries);
  }
  RoundRobin turn(kCountedSeries);
  CALLGRIND_ZERO_STATS;
  CALLGRIND_TOGGLE_COLLECT;
  for (size_t i = 0; i < kOperations; ++i) {
    operation(turn.Next());
  }
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT(name);
  std::printf("%s %zu\n", name, kOperations);
}

tidegate::Options Facade() {
  tidegate::Options options;
  options.service = "app";
  options.interval = std::chrono::seconds(60);
  options.socket_path = "/tmp/nobody.listens.here";
  options.log_level = tidegate::LogLevel::kSilent;
  return options;
}

// The calls of the facade, each beside the call of the layer below that does the same.
void CountFacade(METRICS::Metric& one, METRICS::Metric& three) {
  tidegate::Metrics metrics(Facade());
  const tidegate::Rate rate1 = metrics.Rate("one", TagNames(1));
  const tidegate::Rate rate3 = metrics.Rate("three", TagNames(3));
  const tidegate::Timer timer = metrics.Timer("timer");
  const tidegate::BoundRate bound_rate = rate1.With(Tags(0, 1));
  const tidegate::BoundTimer bound_timer = timer.With({});
  METRICS::BoundSeries bound;
  bound.Bind(&one, {}, METRICS::Observe(0));
  const std::string a = TagValues(0, 3)[0];
  const std::string b = TagValues(0, 3)[1];
  const std::string c = TagValues(0, 3)[2];
  constexpr std::chrono::microseconds kTime(7);

  Count("braces_1", [&](size_t) { one.Emit({{"endpoint", a}}, Incr(1)); });
  Count("facade_braces_1", [&](size_t) { rate1.Add(1, {{"endpoint", a}}); });
  Count("braces_3", [&](size_t) {
    three.Emit({{"endpoint", a}, {"instance", b}, {"operation", c}}, Incr(1));
  });
  Count("facade_braces_3", [&](size_t) {
    rate3.Add(1, {{"endpoint", a}, {"instance", b}, {"operation", c}});
  });
  Count("facade_bound_series", [&](size_t) { bound_rate.Add(1); });
  Count("bound_timer", [&](size_t) { bound.Emit(kTime); });
  Count("facade_bound_timer", [&](size_t) { bound_timer.Observe(kTime); });
}

}  // namespace

int main() {
  Client client;
  METRICS::Metric& one = client.Make("one", 1);
  METRICS::Metric& three = client.Make("three", 3);
  const auto tags1 = ForEachSeries([](size_t series) { return Tags(series, 1); });
  const auto tags3 = ForEachSeries([](size_t series) { return Tags(series, 3); });
  const auto values3 = ForEachSeries([](size_t series) { return TagValues(series, 3); });
  const METRICS::MetricFieldValue value = Incr(1);
  const auto held = one.WithTags(tags1[0]);
  METRICS::BoundSeries bound;
  bound.Bind(&one, tags1[0], value);

  Count("with_tags_1", [&](size_t series) { one.WithTags(tags1[series])->Emit(Incr(1)); });
  Count("with_tags_3", [&](size_t series) { three.WithTags(tags3[series])->Emit(Incr(1)); });
  Count("one_call_1", [&](size_t series) { one.Emit(tags1[series], Incr(1)); });
  Count("one_call_3", [&](size_t series) { three.Emit(tags3[series], Incr(1)); });
  Count("with_tag_values_3",
        [&](size_t series) { three.WithTagValues(values3[series])->Emit(Incr(1)); });
  Count("held_item", [&](size_t) { held->Emit(value); });
  Count("bound_series", [&](size_t) { bound.Emit(1); });
  CountFacade(one, three);
}

// What does one emission cost with the reader's own tags: short or long, ready or made anew, on few
// series or on more than the caches hold, and on series that were made a moment ago?
//
// One thread. The series are visited in a shuffled order. tags_peer.cc has the peer's side, in a
// program of its own.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "scenarios.h"
#include "tag_settings.h"
#include "thread_clock.h"
#include "tidegate/tag_view.h"

namespace tidegate::bench {
namespace {

using METRICS::Incr;
using METRICS::Metric;
using ItemPtr = std::shared_ptr<METRICS::MetricCollectorItem>;

// A metric with all of its series, and the lists of their tags.
struct Lists {
  explicit Lists(const TagSetting& setting)
      : metric(client.Make("known", setting.tags)),
        order(Shuffled(setting.series)),
        tags(
            ForEachSeries([&](size_t series) { return Tags(series, setting.tags, setting.length); },
                          setting.series)) {
    for (const auto& list : tags) {
      metric.WithTags(list)->Emit(Incr(1));
    }
  }

  Client client;
  Metric& metric;
  const std::vector<uint32_t> order;
  const std::vector<std::vector<MetricTag>> tags;
};

// The caller has its lists of tags, and uses them again and again.
template <class Emit>
void EmitOnLists(benchmark::State& state, Emit emit) {
  auto& lists = KeptWorld<Lists>(SettingOf(state));
  RoundRobin turn(lists.order.size());
  for (auto _ : state) {
    emit(lists.metric, lists.tags[lists.order[turn.Next()]]);
  }
}

void WithTags(benchmark::State& state) {
  EmitOnLists(state,
              [](Metric& metric, const auto& tags) { metric.WithTags(tags)->Emit(Incr(1)); });
}
BENCHMARK(WithTags)->Apply(TagSettings)->UseRealTime();

void OneCall(benchmark::State& state) {
  EmitOnLists(state, [](Metric& metric, const auto& tags) { metric.Emit(tags, Incr(1)); });
}
BENCHMARK(OneCall)->Apply(TagSettings)->UseRealTime();

// Requests, and a metric with the series that they count on.
struct Handler {
  explicit Handler(const TagSetting& setting)
      : metric(client.Make("requests", setting.tags)), requests(setting) {}

  Client client;
  Metric& metric;
  const Requests requests;
};

// Calls `emit` with a list of strings that are made from the request.
template <class Emit>
void EmitWithStrings(const Request& request, size_t tags, Emit emit) {
  std::vector<MetricTag> list{{"endpoint", std::string(request.endpoint)}};
  if (tags > 1) {
    list.reserve(tags);
    list.emplace_back("instance", std::string(request.instance));
    list.emplace_back("operation", std::to_string(request.operation));
  }
  if (tags > 3) {
    list.emplace_back("region", std::string(request.region));
    list.emplace_back("service", std::string(request.service));
    list.emplace_back("status", std::to_string(request.status));
    list.emplace_back("tenant", std::string(request.tenant));
    list.emplace_back("zone", std::string(request.zone));
  }
  emit(list);
}

// Calls `emit` with views of what is in the request.
template <class Emit>
void EmitWithViews(const Request& request, size_t tags, Emit emit) {
  if (tags == 1) {
    emit({{"endpoint", request.endpoint}});
  } else if (tags == 3) {
    emit({{"endpoint", request.endpoint},
          {"instance", request.instance},
          {"operation", request.operation}});
  } else {
    emit({{"endpoint", request.endpoint},
          {"instance", request.instance},
          {"operation", request.operation},
          {"region", request.region},
          {"service", request.service},
          {"status", request.status},
          {"tenant", request.tenant},
          {"zone", request.zone}});
  }
}

// The caller makes its tags from a request, for this one emission.
template <class Count>
void EmitAnew(benchmark::State& state, Count count) {
  const TagSetting setting = SettingOf(state);
  auto& handler = KeptWorld<Handler>(setting);
  RoundRobin turn(setting.series);
  for (auto _ : state) {
    count(handler.metric, handler.requests[turn.Next()], setting.tags);
  }
}

void WithTagStrings(benchmark::State& state) {
  EmitAnew(state, [](Metric& metric, const Request& request, size_t tags) {
    EmitWithStrings(request, tags, [&](const std::vector<MetricTag>& list) {
      metric.WithTags(list)->Emit(Incr(1));
    });
  });
}
BENCHMARK(WithTagStrings)->Apply(AnewSettings)->UseRealTime();

using Views = std::initializer_list<TagView>;

void WithTagViews(benchmark::State& state) {
  EmitAnew(state, [](Metric& metric, const Request& request, size_t tags) {
    EmitWithViews(request, tags, [&](Views views) { metric.WithTags(views)->Emit(Incr(1)); });
  });
}
BENCHMARK(WithTagViews)->Apply(AnewSettings)->UseRealTime();

void OneCallViews(benchmark::State& state) {
  EmitAnew(state, [](Metric& metric, const Request& request, size_t tags) {
    EmitWithViews(request, tags, [&](Views views) { metric.Emit(views, Incr(1)); });
  });
}
BENCHMARK(OneCallViews)->Apply(AnewSettings)->UseRealTime();

// Emissions of series that were made a moment ago: each round emits once on every series, and none
// of them is in the caches then. The counters have the CPU time of one emission, by its number.
template <class Emit>
void EmissionsByNumber(benchmark::State& state, Emit emit) {
  constexpr size_t kCold = 60000;
  const auto tags = static_cast<size_t>(state.range(0));
  struct Span {
    const char* name;
    int first, last;
  };
  constexpr Span kSpans[] = {{"1", 1, 1}, {"2", 2, 2}, {"3_to_60", 3, 60}, {"later", 71, 90}};
  for (auto _ : state) {
    Client client;
    Metric& metric = client.Make("fresh", tags);
    const auto lists =
        ForEachSeries([&](size_t series) { return Tags(series, tags, Length::k20To60); }, kCold);
    const std::vector<uint32_t> order = Shuffled(kCold);
    std::vector<double> rounds{0};
    for (int number = 1; number <= kSpans[3].last; ++number) {
      const auto start = ThreadClock::now();
      for (const uint32_t series : order) {
        emit(metric, series, lists[series]);
      }
      const std::chrono::duration<double, std::nano> taken = ThreadClock::now() - start;
      rounds.push_back(taken.count() / kCold);
    }
    for (const Span& span : kSpans) {
      const double sum =
          std::accumulate(rounds.begin() + span.first, rounds.begin() + span.last + 1, 0.0);
      state.counters["emission_" + std::string(span.name) + "_ns"] =
          sum / (span.last + 1 - span.first);
    }
  }
}

void FirstByTags(benchmark::State& state) {
  EmissionsByNumber(state, [](Metric& metric, size_t /*series*/, const auto& tags) {
    metric.WithTags(tags)->Emit(Incr(1));
  });
}
BENCHMARK(FirstByTags)->ArgName("tags")->Arg(1)->Arg(3)->Iterations(1);

void FirstOnHeld(benchmark::State& state) {
  std::vector<ItemPtr> items;
  EmissionsByNumber(state, [&items](Metric& metric, size_t series, const auto& tags) {
    if (items.size() <= series) {
      items.resize(series + 1);
    }
    if (items[series] == nullptr) {
      items[series] = metric.WithTags(tags);
    }
    items[series]->Emit(Incr(1));
  });
}
BENCHMARK(FirstOnHeld)->ArgName("tags")->Arg(1)->Iterations(1);

}  // namespace
}  // namespace tidegate::bench

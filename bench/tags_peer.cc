// What does the peer pay for the tags of tags_bench.cc?

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "peers.h"
#include "tag_settings.h"

namespace tidegate::bench {
namespace {

PeerCounters& AddFamily(prometheus::Registry& registry) {
  return prometheus::BuildCounter().Name("requests_total").Help("requests").Register(registry);
}

// A family with all of its counters, and the lists of their labels.
struct Lists {
  explicit Lists(const TagSetting& setting)
      : order(Shuffled(setting.series)),
        labels(ForEachSeries(
            [&](size_t series) { return LabelsOf(series, setting.tags, setting.length); },
            setting.series)) {
    for (const prometheus::Labels& list : labels) {
      family.Add(list).Increment();
    }
  }

  prometheus::Registry registry;
  PeerCounters& family = AddFamily(registry);
  const std::vector<uint32_t> order;
  const std::vector<prometheus::Labels> labels;
};

void PeerLabels(benchmark::State& state) {
  auto& lists = KeptWorld<Lists>(SettingOf(state));
  RoundRobin turn(lists.order.size());
  for (auto _ : state) {
    lists.family.Add(lists.labels[lists.order[turn.Next()]]).Increment();
  }
}
BENCHMARK(PeerLabels)->Apply(TagSettings)->UseRealTime();

struct Handler {
  explicit Handler(const TagSetting& setting) : requests(setting) {}

  prometheus::Registry registry;
  PeerCounters& family = AddFamily(registry);
  const Requests requests;
};

void Count(PeerCounters& family, const Request& request, size_t tags) {
  if (tags == 1) {
    family.Add({{"endpoint", std::string(request.endpoint)}}).Increment();
  } else if (tags == 3) {
    family
        .Add({{"endpoint", std::string(request.endpoint)},
              {"instance", std::string(request.instance)},
              {"operation", std::to_string(request.operation)}})
        .Increment();
  } else {
    family
        .Add({{"endpoint", std::string(request.endpoint)},
              {"instance", std::string(request.instance)},
              {"operation", std::to_string(request.operation)},
              {"region", std::string(request.region)},
              {"service", std::string(request.service)},
              {"status", std::to_string(request.status)},
              {"tenant", std::string(request.tenant)},
              {"zone", std::string(request.zone)}})
        .Increment();
  }
}

void PeerLabelsAnew(benchmark::State& state) {
  const TagSetting setting = SettingOf(state);
  auto& handler = KeptWorld<Handler>(setting);
  RoundRobin turn(setting.series);
  for (auto _ : state) {
    Count(handler.family, handler.requests[turn.Next()], setting.tags);
  }
}
BENCHMARK(PeerLabelsAnew)->Apply(AnewSettings)->UseRealTime();

}  // namespace
}  // namespace tidegate::bench

// Writes the packets that the library makes of each kind of metric, one file each: the valid seeds
// of the fuzzer packet_reader. Usage: make_packet_seeds <folder>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/agent_socket.h"
#include "support/environment.h"

namespace tidegate::test {
namespace {

using METRICS::MetricFieldValue;
using Kind = METRICS::MetricCoItemType;
using Setup = std::function<void(METRICS::Metric&)>;

// Makes a metric, lets `feed` configure it and emit, and writes what the last flush sends. A total
// also makes a packet of the interval before, whose name ends with "_before".
void WriteSeeds(const std::string& folder, const std::string& name, Kind kind,
                std::vector<METRICS::MetricFieldCfg> fields, const Setup& feed) {
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  TestClient client(ReportTo(agent.path(), kNeverDue));
  METRICS::HistoUtilBase bounds({0.5, 100});
  METRICS::MetricInstanceCfg cfg{"m", {}, {}, std::move(fields), &bounds};
  if (kind != Kind::kCoItemCompatible) cfg.tag_names = {"w"};
  METRICS::Metric* metric = nullptr;
  client.Registry("p", "t1", {{"r", "g"}})->CreateMetric(metric, {kind, std::move(cfg)});
  feed(*metric);
  client->FlushAndExit();
  agent.Stop();
  std::string path = folder + "/ok_" + name;
  for (const ReceivedPacket& received : agent.Received()) {
    std::ofstream(path, std::ios::binary) << received.bytes;
    std::printf("%s: %zu bytes\n", path.c_str(), received.bytes.size());
    path += "_before";
  }
}

void WriteAll(const std::string& folder) {
  const std::vector<std::pair<std::string, MetricFieldValue>> verbs{
      {"gauge", METRICS::Store(1.5)},       {"rate", METRICS::Incr(3)},
      {"counter", METRICS::IncrCounter(4)}, {"meter", METRICS::IncrMeter(5)},
      {"timer", METRICS::Observe(6)},       {"histogram", METRICS::Stat(7.0)},
      {"delta_counter", METRICS::Add(8)}};
  METRICS::HistoUtilBase bounds({0.5, 100});
  std::vector<METRICS::MetricFieldCfg> fields;
  for (const auto& [name, verb] : verbs) {
    const MetricFieldValue value = verb;
    fields.push_back({value.name, value.type, &bounds});
    WriteSeeds(folder, name, Kind::kCoItemSuffix, {},
               [&](METRICS::Metric& metric) { metric.WithTagValues({"a"})->Emit({value}); });
  }
  WriteSeeds(folder, "timer_row", Kind::kCoItemSuffix, {}, [](METRICS::Metric& metric) {
    metric.SetMultiFieldSummary(true);
    metric.WithTagValues({"a"})->Emit({METRICS::Observe(1)});
  });
  WriteSeeds(folder, "fields", Kind::kCoItemField, fields, [&](METRICS::Metric& metric) {
    for (const auto& [name, verb] : verbs) metric.WithTagValues({"a"})->Emit({verb});
    metric.WithTagValues({"b"})->Emit({METRICS::Incr(1)});
  });
  WriteSeeds(folder, "compatible", Kind::kCoItemCompatible, {}, [](METRICS::Metric& metric) {
    metric.SetCompatibleType(METRICS::MetricsType::kGauge);
    metric.CEmit(1, {"w", "a"});
    metric.CEmit(2, {"w", "b", "x", "c"});
  });
}

}  // namespace
}  // namespace tidegate::test

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_packet_seeds <folder>\n");
    return 2;
  }
  tidegate::test::WriteAll(argv[1]);
  return 0;
}

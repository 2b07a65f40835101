// How each kind of metric travels: through a real socket to the agent's reader.

#include <regex>
#include <set>
#include <sstream>

#include "codec/fnv_hash.h"
#include "support/agent_socket.h"
#include "support/environment.h"

namespace METRICS {
namespace {

using namespace tidegate::test;
using T = MetricsType;
using Strings = std::vector<std::string>;
using Texts = std::multiset<std::string>;
using Fields = std::vector<MetricFieldCfg>;

template <class List>
std::string Joined(const List& list, const char* separator = ",") {
  std::ostringstream text;
  for (const auto& element : list) text << (text.tellp() > 0 ? separator : "") << element;
  return text.str();
}

// A block as "type name columns|tags[indexes]=values|...", its records sorted.
std::string TextOf(const tidegate::agent::Block& block) {
  using namespace lattice_kit::codec;
  EXPECT_EQ(block.name_hash, StrFNVHash(block.name, kFNVOffsetBasis)) << block.name;
  Texts records;
  for (const auto& series : block.series) {
    uint32_t hash = kFNVOffsetBasis;
    std::vector<std::string> tags;
    for (const Tag& tag : series.tags) {
      hash = TagFNVHash(tag.key, tag.value, hash);
      tags.push_back(tag.key + ":" + tag.value);
    }
    EXPECT_EQ(series.tag_hash, hash);
    const std::string indexes = series.indexes.empty() ? "" : "[" + Joined(series.indexes) + "]";
    records.insert("|" + Joined(tags) + indexes + "=" + Joined(series.values));
  }
  std::vector<std::string> columns;
  for (const auto& field : block.fields) columns.push_back(field.name);
  return std::to_string(block.wire_type) + " " + block.name + " " + Joined(columns) +
         Joined(records, "");
}

// A client with its agent and a registry of 5 s, whose flushes are driven by hand.
struct Road {
  explicit Road(bool pre_encode_tags)
      : client(TestClientOptions{{}, kNeverDue, {agent.path()}, {false, false, pre_encode_tags}}),
        registry(client.Registry("p", "t1", {{"r", "g"}}, 5)) {}

  // A compatible metric if it has a type, else one with the tag "w".
  Metric& Make(const std::string& name, T compatible, const Fields& fields = {}) {
    Metric* metric = nullptr;
    HistoUtilBase bounds({0.5, 100});
    const bool declared = compatible == T();
    const auto kind = static_cast<MetricCoItemType>(!declared ? 3 : fields.empty() ? 1 : 2);
    registry->CreateMetric(metric,
                           {kind, {name, Strings(declared, "w"), {{"o", "own"}}, fields, &bounds}});
    metric->SetCompatibleType(compatible);
    return *metric;
  }
  // The blocks that were sent for second `now`, sorted. The agent goes away.
  std::string BlocksAt(int64_t now) {
    agent.Stop();
    EXPECT_THAT(agent.Errors(), testing::IsEmpty());
    Texts blocks;
    for (const ReceivedPacket& received : agent.Received()) {
      for (const auto& block : received.packet.blocks) {
        if (block.timestamp == now) blocks.insert(TextOf(block));
      }
    }
    return Joined(blocks, "\n");
  }

  const TempDir dir;
  AgentSocket agent{dir.File("s")};
  TestClient client;
  MetricRegistry* const registry;
};

const std::string kTimer = "min,max,avg,sum,counter,pct50,pct90,pct95,pct99,pct999";
const std::string kRow =
    "7 p.fields store,rate,counter,meter,meter.rate,timer.min,timer.max,timer.avg,timer.sum,"
    "timer.counter,timer.pct50,timer.pct90,timer.pct95,timer.pct99,timer.pct999,"
    "hist:histogram:b-0.500000,hist:histogram:b-100.000000,hist:histogram:sum,"
    "hist:histogram:count,delta_counter.counter,delta_counter.rate,delta_counter.delta";
// "@a" and "#a" stand for the tags of series a, of a metric with declared tags or a compatible one.
const std::string kNow =
    "1 p.gauge #a=1#b=2.5;1 p.plain.store @a=1.5;1 p.plain.timer.avg @a=2;"
    "1 p.plain.timer.counter @a=2;1 p.plain.timer.max @a=3;1 p.plain.timer.min @a=1;"
    "1 p.plain.timer.pct50 @a=3;1 p.plain.timer.pct90 @a=3;1 p.plain.timer.pct95 @a=3;"
    "1 p.plain.timer.pct99 @a=3;1 p.plain.timer.pct999 @a=3;1 p.plain.timer.sum @a=4;"
    "1 p.timer.avg #a=1;1 p.timer.avg #b=2;1 p.timer.counter #a=1;1 p.timer.counter #b=2;"
    "1 p.timer.max #a=1;1 p.timer.max #b=2.5;1 p.timer.min #a=1;1 p.timer.min #b=1.5;"
    "1 p.timer.pct50 #a=1;1 p.timer.pct50 #b=2.5;1 p.timer.pct90 #a=1;1 p.timer.pct90 #b=2.5;"
    "1 p.timer.pct95 #a=1;1 p.timer.pct95 #b=2.5;1 p.timer.pct99 #a=1;1 p.timer.pct99 #b=2.5;"
    "1 p.timer.pct999 #a=1;1 p.timer.pct999 #b=2.5;1 p.timer.sum #a=1;1 p.timer.sum #b=4;"
    "2 p.plain.rate @a=6;2 p.rate #a=0.2#b=0.8;3 p.counter #a=2#b=8;3 p.plain.counter @a=10;"
    "3 p.plain.counter @b=2;4 p.meter #a=2;4 p.meter #b=8;4 p.meter.rate #a=0.2;"
    "4 p.meter.rate #b=0.8;4 p.plain.meter @a=10;4 p.plain.meter.rate @a=1;5 p.ckms.timer " +
    kTimer + "@a=1,3,2,4,2,1,1,1,1,1;5 p.row " + kTimer +
    "#a=1,1,1,1,1,1,1,1,1,1#b=1.5,2.5,2,4,2,2.5,2.5,2.5,2.5,2.5;"
    "6 p.plain.histogram hist:b-0.500000,hist:b-100.000000,hist:sum,hist:count@a=1,1,201,2;" +
    kRow +
    "@a[0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21]="
    "1.5,6,10,10,1,1,3,2,4,2,3,3,3,3,3,1,1,201,2,20,2,10@b[2,19,20,21]=2,10,1,5;7 p.quiet store;"
    "8 p.plain.delta_counter counter,rate,delta@a=20,2,10;"
    "8 p.plain.delta_counter counter,rate,delta@b=10,1,5";
const std::string kBefore =
    "3 p.counter #a=1;3 p.counter #b=4;3 p.plain.counter @a=5;3 p.plain.counter @b=1;"
    "4 p.meter #a=1;4 p.meter #b=4;4 p.meter.rate #a=0;4 p.meter.rate #b=0;"
    "4 p.plain.meter @a=5;4 p.plain.meter.rate @a=0;" +
    kRow +
    "@a[2,3,4,19,20,21]=5,5,0,10,0,0@b[2,19,20,21]=1,5,0,0;"
    "8 p.plain.delta_counter counter,rate,delta@a=10,0,0;"
    "8 p.plain.delta_counter counter,rate,delta@b=5,0,0";

TEST(KindsTest, EachKindHasItsForm) {
  HistoUtilBase bounds({0.5, 100});
  Fields fields;
  for (const MetricFieldValue& verb :
       {Store(0), Incr(0), IncrCounter(0), IncrMeter(0), Observe(0), Stat(0), Add(0)}) {
    fields.push_back({verb.name, verb.type, &bounds});
  }
  for (const bool pre_encode_tags : {false, true}) {
    Road road(pre_encode_tags);
    Metric* const declared[] = {&road.Make("plain", T()), &road.Make("fields", T(), fields)};
    std::vector<Metric*> compatible{&road.Make("row", T::kTimer)};
    for (const T type : {T::kGauge, T::kRate, T::kCounter, T::kMeter, T::kTimer}) {
      compatible.push_back(&road.Make(CovMetricTypeToStr(type), type));
    }
    Metric& ckms = road.Make("ckms", T());
    ckms.SetUseCkms(true);
    for (Metric* const metric : {&ckms, compatible[0]}) metric->SetMultiFieldSummary(true);
    road.Make("quiet", T(), {{"store", T::kGauge}}).WithTags({})->Emit({Store(1)});
    for (const int64_t start : {1000, 2000}) {  // with a silence in between
      ckms.WithTagValues({"a"})->Emit({Observe(3), Observe(1)});
      for (Metric* const metric : declared) {
        for (const MetricFieldValue& value :
             {Store(1.5), Incr(30), IncrCounter(5), IncrMeter(5), Add(10), Observe(3), Observe(1),
              Stat(1), Stat(0.25), Stat(200.0)}) {
          metric->WithTagValues({"a"})->Emit({value});
        }
        metric->WithTagValues({"b"})->Emit({IncrCounter(1), Add(5)});
      }
      for (Metric* const metric : compatible) {
        metric->CEmit(1, {"w", "a"});
        for (const double number : {1.5, 2.5}) metric->CEmit(number, {"w", "b"});
      }
      for (int64_t now = start; now < start + 20; now += 5) road.client.Flush(now);
    }
    // A compatible series has its own tags and the registry's; where they are encoded in advance,
    // but those of metric and registry.
    const auto text = [pre_encode_tags](const std::string& list) {
      const std::string lines = std::regex_replace(list, std::regex(";"), "\n");
      const char* const compatible_tags = pre_encode_tags ? "|o:own,r:g" : "|r:g,w:$1";
      return std::regex_replace(std::regex_replace(lines, std::regex("@([ab])"), "|o:own,r:g,w:$1"),
                                std::regex("#([ab])"), compatible_tags);
    };
    EXPECT_EQ(road.BlocksAt(2000), text(kNow));
    EXPECT_EQ(road.BlocksAt(1995), text(kBefore));
    EXPECT_EQ(road.BlocksAt(1015), "") << "all was quiet";
  }
}

TEST(KindsTest, TagsOfACompatibleSeriesMergeWithTheRegistrysAndWinAndOfThemTheFirst) {
  Road road(false);
  Metric& metric = road.Make("m", T::kGauge);
  Strings many{"r", "1"};  // enough for a sort that is not stable to show
  for (int i = 0; i < 60; ++i)
    many.insert(many.end(), {"k" + std::to_string(i % 3), std::to_string(i)});
  for (const Strings& pairs :
       {Strings{"x", "1", "a", "2"}, many, {"r", "1"}, {"b", "1", "a"}, {"b"}}) {
    metric.impl_->CEmit(1, Strings(pairs));
  }
  road.client.Flush(1000);
  EXPECT_EQ(road.BlocksAt(1000), "1 p.m |a:2,r:g,x:1=1|b:1,r:g=1|k0:0,k1:1,k2:2,r:1=1|r:1=1|r:g=1");
}

TEST(KindsTest, PacketsAreCutBetweenRecordsAndNoneIsLostOrDoubled) {
  const struct {
    T compatible;
    int series;
    size_t tag_size, records, packets;  // records: per series
  } cases[] = {{T(), 1500, 200, 2, 4},       {T::kCounter, 1500, 200, 2, 4},
               {T::kMeter, 1500, 200, 4, 8}, {T::kTimer, 1500, 200, 1, 3},
               {T(), 1, 390000, 2, 2},       {T::kTimer, 1, 390000, 1, 1}};
  for (const auto& [compatible, series, tag_size, records, packets] : cases) {
    Road road(false);
    const bool row = compatible == T();
    Metric& metric = road.Make("m", compatible, row ? Fields{{"counter", T::kCounter}} : Fields());
    metric.SetMultiFieldSummary(true);
    for (int i = 1000; i < 1000 + series; ++i) {
      const std::string tag = std::to_string(i) + std::string(tag_size, '.');
      row ? metric.WithTagValues({tag})->Emit({IncrCounter(i)})
          : metric.impl_->CEmit(i, {"w", tag});
    }
    road.client.Flush(2000);
    road.agent.Stop();
    EXPECT_THAT(road.agent.Errors(), testing::IsEmpty());
    EXPECT_EQ(road.agent.Received().size(), packets);
    std::set<std::string> seen;
    for (const Point& point : road.agent.Points()) {
      const std::string& tag = point.tags.back().value;
      EXPECT_TRUE(seen.insert(std::to_string(point.timestamp) + point.name + tag).second);
      const double per = point.name == "p.m" ? 1.0 : 5.0;
      EXPECT_EQ(point.values.at(0), point.timestamp == 2000 ? std::stod(tag) / per : 0.0);
    }
    EXPECT_EQ(seen.size(), records * static_cast<size_t>(series));
  }
}

}  // namespace
}  // namespace METRICS

#include <set>
#include <sstream>

#include "agent/packet_reader.h"
#include "codec/fnv_hash.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_registry.h"
#include "support/list_sender.h"

namespace METRICS {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using tidegate::agent::Packet;

// Each block as its name, type, time and number of series; packets end with "|".
std::string Outline(const std::vector<Packet>& packets) {
  std::ostringstream text;
  for (const Packet& packet : packets) {
    for (const auto& block : packet.blocks) {
      text << (&block == packet.blocks.data() ? "" : ",") << block.name << " "
           << int{block.wire_type} << "@" << block.timestamp << "x" << block.series.size();
    }
    text << "|";
  }
  return text.str();
}

class EncoderTest : public testing::Test {
 protected:
  using K = MetricCoItemType;
  using T = MetricsType;

  Metric* Make(const std::string& prefix, const std::string& name = "m", int interval = 5,
               K kind = K::kCoItemSuffix, const std::vector<MetricFieldCfg>& fields = {}) {
    Metric* metric = nullptr;
    MetricInstanceCfg cfg{name, {}, {}, fields, nullptr};
    if (kind != K::kCoItemCompatible) cfg.tag_names = {"a"};
    client_.Registry(prefix, "t1", {}, interval)->CreateMetric(metric, {kind, cfg});
    return metric;
  }
  CollectorList All() { return client_->collector_factory_->GetTenantCollector("t1"); }

  tidegate::test::TestClient client_;
  tidegate::test::PacketList sent_;
};

TEST_F(EncoderTest, APacketThatReachesTheLimitIsSentBetweenTwoCellsOfASeries) {
  Metric* const metric = Make("p");
  const auto sizes = [&](size_t value_length, const std::vector<MetricFieldValue>& values) {
    metric->impl_->ClearCollector();
    metric->WithTagValues({std::string(value_length, 'v')})->Emit(values);
    std::vector<size_t> result;
    for (const Packet& packet : sent_.Flush(All())) {
      result.push_back(packet.header_len + packet.body_len);
      for (const auto& block : packet.blocks) {
        EXPECT_EQ(block.timestamp, packet.blocks[0].timestamp);
      }
    }
    return result;
  };
  const std::vector<MetricFieldValue> x{WithSuffix("x", Store(1))};
  const std::vector<MetricFieldValue> xy{x[0], WithSuffix("y", Store(2))};
  const size_t fits = 262142 - sizes(0, x).at(0);
  const size_t both = sizes(0, xy).at(0);
  EXPECT_THAT(sizes(fits, xy), ElementsAre(both + 2 * fits));
  EXPECT_THAT(sizes(fits + 1, xy), ElementsAre(262143, 262143));
  EXPECT_THAT(sizes(fits + 300000, xy), ElementsAre(562142, 562142)) << "never split";
  EXPECT_THAT(sizes(0, xy), ElementsAre(both));
  // The packet of the previous interval has a limit of its own.
  EXPECT_THAT(sizes(fits, {WithSuffix("x", Add(1)), WithSuffix("y", Add(1))}).size(), 4u);
  EXPECT_THAT(sizes(fits, {WithSuffix("x", IncrCounter(1))}), ElementsAre(262142, 262142));
}

// The packet of the interval before goes before the other one, but for compatible series that
// share a block. A block is opened again for the series that follow, even if all of them are idle.
TEST_F(EncoderTest, ACutPacketGoesOnAsItsFormHasIt) {
  const struct {
    K kind;
    T type;
    std::string one, idle_behind;
  } forms[] = {{K::kCoItemSuffix, T(), "p.m.counter 3@995x1|p.m.counter 3@1000x1|", ""},
               {K::kCoItemField, T(), "p.m 7@995x1|p.m 7@1000x1|", "p.m 7@1000x0,"},
               {K::kCoItemCompatible, T::kCounter, "p.m 3@1000x1|p.m 3@995x1|", "p.m 3@1000x0,"},
               {K::kCoItemCompatible, T::kMeter,
                "p.m 4@995x1,p.m.rate 4@995x1|p.m 4@1000x1,p.m.rate 4@1000x1|", ""}};
  const std::string big(262143, 'v');
  Metric* const other = Make("p", "z");
  for (const auto& [kind, type, one, idle_behind] : forms) {
    for (const bool idle : {false, true}) {
      Metric& metric = *Make("p", "m", 5, kind, {{"counter", T::kCounter}});
      metric.SetCompatibleType(type);
      for (const std::string& tag : {big, std::string("idle")}) {
        if (tag != big && !idle) continue;
        if (type != T()) {
          metric.impl_->CEmit(1, {"w", tag});
        } else {
          metric.WithTagValues({tag})->Emit({IncrCounter(1)});
        }
      }
      const CollectorPtr collector = metric.impl_->collector_;
      if (idle) collector->GetAll().at(1).second->active_ = false;
      other->WithTags({})->Emit({Store(1)});
      EXPECT_EQ(Outline(sent_.Flush({collector, other->impl_->collector_})),
                one + (idle ? idle_behind : "") + "p.z.store 1@1000x1|");
      EXPECT_EQ(Outline(sent_.Flush({})), "");
      metric.registry_->RemoveMetric("m");
    }
  }
}

TEST_F(EncoderTest, EachSeriesIsInAFlushOnceWhateverThePiecesOfItsListing) {
  const std::string big(262143, 'v');
  for (const K kind : {K::kCoItemSuffix, K::kCoItemField, K::kCoItemCompatible}) {
    for (const int count : {1023, 1024, 1025, 2048, 2049}) {
      for (const int cut : {1022, 1023}) {  // the packet ends after this series
        Metric& metric = *Make("p", "m", 5, kind, {{"store", T::kGauge}});
        metric.SetCompatibleType(T::kGauge);
        std::set<std::string> made, flushed;
        for (int i = 0; i < count; ++i) {
          const std::string value = i == cut ? big : std::to_string(i);
          made.insert(value);
          if (kind == K::kCoItemCompatible) {
            metric.impl_->CEmit(i, {"a", value});
          } else {
            metric.WithTagValues({value})->EmitMap({{"store", i}});
            metric.WithTagValues({value})->Emit({Store(i)});
          }
        }
        size_t records = 0;
        const std::vector<Packet> packets = sent_.Flush({metric.impl_->collector_});
        for (const Packet& packet : packets) {
          for (const auto& block : packet.blocks) {
            for (const auto& series : block.series) {
              flushed.insert(series.tags.at(0).value);
              ++records;
            }
          }
        }
        EXPECT_EQ(flushed, made);
        EXPECT_EQ(records, made.size());
        EXPECT_EQ(packets.size(), count <= cut + 1 ? 1u : 2u) << count << ' ' << cut;
        metric.registry_->RemoveMetric("m");
      }
    }
  }
}

TEST_F(EncoderTest, WhatIsInATableThroughoutAFlushIsInItOnceWhateverElseComesAndGoes) {
  constexpr int kSeries = 3000;
  Metric& metric = *Make("p");
  const std::string big(262143, 'v');  // sent before all others are listed
  const auto emit = [&](const std::string& tag) { metric.WithTagValues({tag})->Emit({Store(1)}); };
  emit(big);
  for (int i = 0; i < kSeries; ++i) emit(std::to_string(i));
  sent_.between = [&] {
    for (int i = 0; i < kSeries; i += 3) metric.impl_->collector_->Erase({std::to_string(i)});
    for (int i = 0; i < kSeries; ++i) emit("new" + std::to_string(i));
  };
  const auto flush = [&] {
    std::map<std::string, int> flushed;
    for (const Packet& packet : sent_.Flush(All())) {
      for (const auto& block : packet.blocks) ++flushed[block.series.at(0).tags.at(0).value];
    }
    return flushed;
  };
  std::map<std::string, int> first = flush(), second = flush();
  for (int i = 0; i < kSeries; ++i) {
    const std::string tag = std::to_string(i);
    EXPECT_EQ(first[tag], i % 3 == 0 && i >= 7 ? 0 : 1) << tag << ": cells of 7 are listed";
    EXPECT_EQ(first["new" + tag] + second["new" + tag], 1) << tag;
  }
}

TEST_F(EncoderTest, FieldsOfOneNameReportTheirCellEachAsFarAsTheColumnsGo) {
  HistoUtilBase few({1}), more({1, 2, 3});
  const T g = T::kGauge, r = T::kRate, c = T::kCounter, m = T::kMeter, t = T::kTimer,
          h = T::kHistogram, d = T::kDeltaCounter;
  const struct {
    std::vector<MetricFieldCfg> fields;
    std::string now, before;
  } pinned[] = {{{{"f", g}, {"f", g}}, "{ 0 } = { 5 }", ""},
                {{{"f", r}, {"x", g}, {"f", r}}, "{ 0, 2 } = { 1, 0 }", ""},
                {{{"f", c}, {"x", g}, {"f", c}}, "{ 0, 2 } = { 5, 5 }", "{ 0 } = { 0 }"},
                {{{"f", m}, {"f", m}}, "{ 0, 1, 2, 3 } = { 5, 1, 5, 0 }", "{ 0, 1 } = { 0, 0 }"},
                {{{"f", t}, {"f", g}}, "{ 0 } = { 5 }", ""},  // in the first column of the timer
                {{{"f", m}, {"f", c}}, "{ 2 } = { 5 }", "{ 2 } = { 0 }"},
                {{{"f", g}, {"f", m}}, "{ 1, 2 } = { 5, 1 }", "{ 1, 2 } = { 0, 0 }"},
                {{{"x", c}, {"y", c}, {"f", d}, {"f", c}},  // else a column would come twice
                 "{ 5 } = { 5 }",
                 "{ 5 } = { 0 }"}};
  const auto flush = [this](const std::vector<MetricFieldCfg>& fields) {
    Metric& metric = *Make("p", "m", 5, K::kCoItemField, fields);
    metric.WithTags({})->EmitMap({{"f", 5}});
    std::map<int64_t, std::string> records;
    for (const Packet& packet : sent_.Flush({metric.impl_->collector_})) {
      const auto& series = packet.blocks.at(0).series.at(0);
      records[packet.blocks[0].timestamp] =
          testing::PrintToString(series.indexes) + " = " + testing::PrintToString(series.values);
    }
    metric.registry_->RemoveMetric("m");
    return records;
  };
  for (const auto& [fields, now, before] : pinned) {
    auto records = flush(fields);
    EXPECT_EQ(records[1000], now);
    EXPECT_EQ(records[995], before);
  }
  for (const T first : {g, r, c, m, t, h, d}) {  // all that is sent is well formed
    for (const T second : {g, r, c, m, t, h, d}) {
      flush({{"f", first, &few}, {"f", second, &more}, {"f", first, &few}});
    }
  }
}

TEST_F(EncoderTest, WhatIsSetInTheMiddleOfAFlushHoldsFromThereOn) {
  Metric& metric = *Make("p");
  HistoUtilBase bounds({1, 10});
  metric.WithTagValues({std::string(262143, 'v')})->Emit({Observe(1)});
  for (char tag = '1'; tag <= '9'; ++tag) {
    metric.WithTagValues({{tag}})->Emit({Observe(1), Stat(5)});
  }
  sent_.between = [&] {
    metric.SetMultiFieldSummary(true);
    metric.SetHistogram(&bounds);
    for (const char* tag : {"1", "9"}) {  // one has its cells on the way already
      metric.WithTagValues({tag})->Emit({WithSuffix("late", Stat(5)), Stat(5)});
    }
  };
  const std::vector<Packet> packets = sent_.Flush(All());
  EXPECT_THAT(packets.at(0).blocks,
              testing::Each(testing::Field(&tidegate::agent::Block::wire_type, 1)));
  std::string rows;
  for (int i = 1; i <= 9; ++i) rows += "p.m.timer 5@1000x1,";
  EXPECT_EQ(Outline({packets.at(1)}), rows + "p.m.late 6@1000x1|") << "the others have no buckets";
}

TEST_F(EncoderTest, CountsAbove32767AreCutInTheStatisticAlone) {
  Metric& quiet = *Make("p", "quiet", 5, K::kCoItemField, {{"f", T::kGauge}});
  quiet.WithTags({})->active_ = false;
  Metric& metric = *Make("p");
  metric.WithTags({})->Emit({Store(1)});
  CollectorList collectors(32768, quiet.impl_->collector_);  // a block each, without a series
  collectors.push_back(metric.impl_->collector_);
  EXPECT_EQ(sent_.Flush(collectors).at(0).block_count, 32769u);
}

TEST_F(EncoderTest, EachNumberStaysWithItsSeriesAndSuffixInAnyOrderWhoeverElseIsIdle) {
  Metric* const metric = Make("p");
  metric->SetMultiFieldSummary(true);
  std::map<std::string, double> awake, asleep;
  for (int series = 0; series < 50; ++series) {
    const std::string tag = std::to_string(series);
    const auto item = metric->WithTagValues({tag});
    const bool idle = series % 7 == 0;
    const int suffixes = series % 10 == 0 ? 70 : series % 4;
    for (int i = 0; i < suffixes; ++i) {
      const int suffix = series % 20 == 0 ? i : suffixes - 1 - i, number = 100 * series + suffix;
      const std::string name = "s" + std::to_string(suffix);
      item->Emit({WithSuffix(name, series % 3 == 0 ? Observe(number) : Store(number))});
      (idle ? asleep : awake)["p.m." + name + " " + tag] = number;
    }
    item->active_ = !idle;
  }
  const auto flushed = [&] {
    std::map<std::string, double> numbers;
    for (const Packet& packet : sent_.Flush(All())) {
      for (const auto& block : packet.blocks) {
        const auto& series = block.series.at(0);
        const std::string& tag = series.tags.at(0).value;
        EXPECT_EQ(block.wire_type, std::stoi(tag) % 3 == 0 ? 5 : 1);
        numbers[block.name + " " + tag] = series.values.at(0);
      }
    }
    return numbers;
  };
  EXPECT_EQ(flushed(), awake);
  for (int series = 0; series < 50; series += 7) {
    metric->WithTagValues({std::to_string(series)})->active_ = true;
  }
  EXPECT_EQ(flushed(), asleep);
}

TEST_F(EncoderTest, APacketHoldsOneRegistryAndStandingApartCostsOne) {
  Metric* const metrics[] = {Make("p"), Make("q"), Make("p", "n")};
  const auto blocks = [&](std::initializer_list<int> order) {
    CollectorList collectors;
    for (const int i : order) {
      metrics[i]->WithTags({})->Emit({Store(1)});
      collectors.push_back(metrics[i]->impl_->collector_);
    }
    std::vector<size_t> counts;
    for (const Packet& packet : sent_.Flush(collectors)) counts.push_back(packet.block_count);
    return counts;
  };
  EXPECT_THAT(blocks({0, 2, 1}), ElementsAre(2, 1));
  EXPECT_THAT(blocks({0, 1, 2}), ElementsAre(1, 1, 1));
  EXPECT_THAT(blocks({}), IsEmpty());

  Metric* const slow = Make("slow", "m", 10);  // pending points of an interval before leave first
  for (Metric* const metric : {metrics[0], slow}) metric->WithTags({})->Emit({IncrCounter(1)});
  EXPECT_EQ(Outline(sent_.Flush({metrics[0]->impl_->collector_, slow->impl_->collector_})),
            "p.m.counter 3@1000x1|p.m.counter 3@995x1|"
            "slow.m.counter 3@1000x1|slow.m.counter 3@990x1|");
}

TEST_F(EncoderTest, WhatEndedSinceAFlushWasPlannedIsLeftOut) {
  for (const char* const prefix : {"p", "q"}) Make(prefix)->WithTags({})->Emit({Store(1)});
  const CollectorList planned = All();
  client_.Registry("p")->RemoveMetric("m");
  client_->metric_factory_->RemoveRegistry("q", "t1");
  EXPECT_THAT(sent_.Flush(planned), IsEmpty());
}

TEST_F(EncoderTest, ASeriesWhoseTagsAreNotItsMetricsIsReportedOnceAFlush) {
  Metric& metric = *Make("p.q");
  MetricCollectorBase& collector = *metric.impl_->collector_;
  collector.GetOrCreate({"quiet", "-"});
  collector.GetOrCreate({"-", "-"})->Emit({Observe(1), IncrCounter(1)});
  SeriesWalk series;
  int numbers = 0;
  FlushPackets packets([&](const FinishedPacket& packet) { numbers += packet.series_num; }, [] {});
  const auto flush = [&] {
    series.Begin(collector);
    SuffixedForm(packets).Pack(series, {metric, *metric.registry_, 1000, 5, false, "t1"});
    packets.CleanUpPackage();
  };
  const std::string log = tidegate::test::LogOf(flush, 3);
  EXPECT_EQ(tidegate::test::CountOf("]Internal Error with Tag storage!!!!\n", log), 2u) << log;
  EXPECT_EQ(numbers, 12) << "they go out without tags";
}

TEST(PackTest, GrowsBeforeTheLastByteIsUsedByWholeKilobytesAndNotBeyond2GiB) {
  const struct {
    int32_t capacity, used, wanted, grown;
  } cases[] = {{64, 60, 3, 64},
               {64, 60, 4, 1088},  // one byte stays free
               {64, 0, 1089, 2112},
               {262143, 262000, 142, 262143},
               {262143, 262000, 5000, 267263}};
  for (const auto& [capacity, used, wanted, grown] : cases) {
    const std::string bytes(static_cast<size_t>(used), 'x');
    lattice_kit::codec::Pack pack(capacity);
    pack.PutRaw(bytes.data(), used);
    pack.Reserve(wanted);
    EXPECT_EQ(pack.capacity, grown) << used << " and " << wanted;
    EXPECT_FALSE(pack.TryReserve((size_t{1} << 31) - bytes.size()));
    EXPECT_TRUE(pack.Bytes() == bytes && pack.capacity == grown);
  }
  for (const auto& [large, kept] : {std::pair(409600, 409600), {409601, 262143}}) {
    lattice_kit::codec::Pack pack(large);
    pack.Clear();
    EXPECT_EQ(pack.capacity, kept);
  }
  MetricDataPack pack;
  const auto encode = [&pack](std::string_view tags) { pack.PutRecord(tags, {}, {1}); };
  // Nothing is read of a text that is too long.
  EXPECT_THAT(tidegate::test::LogOf(
                  [&] {
                    encode({pack.begin, size_t{1} << 31});
                  },
                  3),
              testing::EndsWith("]Series record too long, bytes: 2147483668\n"));
  EXPECT_TRUE(pack.Used() == 0 && pack.series_count() == 0);
}

// The answers come from another implementation, in another language.
TEST(HashTest, ListsOfStringsHaveKnownAnswers) {
  const std::pair<std::vector<std::string>, uint32_t> answers[] = {
      {{}, 0x811c9dc5},          {{""}, 0x050c5d1f},
      {{"", ""}, 0x117697cd},    {{"ab", "c"}, 0x35708e65},
      {{"a", "bc"}, 0xb125c599}, {{"abcdefghijklmnopq", "\xc3\xa9"}, 0xd1ff3cec}};
  for (const auto& [list, hash] : answers) {
    EXPECT_EQ(lattice_kit::codec::StrVecFNVHash(list), hash) << testing::PrintToString(list);
  }
}

}  // namespace
}  // namespace METRICS

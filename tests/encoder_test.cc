#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "agent/packet_reader.h"
#include "codec/fnv_hash.h"
#include "metrics/metric_factory.h"
#include "support/list_sender.h"

namespace METRICS {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using tidegate::agent::Packet;
using tidegate::agent::Tag;

// The packets of a flush at second 1000.
std::vector<Packet> Flush(tidegate::test::ListSender& sender, const CollectorList& collectors) {
  sender.last_flush_ts_ = 1000;
  sender.encoder_->PackCollector(collectors);
  return std::exchange(sender.packets, {});
}

class EncoderTest : public testing::Test {
 protected:
  Metric* Make(const std::string& prefix, const std::string& name = "m") {
    Metric* metric = nullptr;
    client_.Registry(prefix, "t1", {}, 5)->CreateMetric(metric, name, {"a"}, nullptr);
    return metric;
  }
  CollectorList All() { return client_->collector_factory_->GetTenantCollector("t1"); }

  tidegate::test::TestClient client_;
  tidegate::test::ListSender sender_{client_};
};

TEST_F(EncoderTest, APacketThatReachesTheLimitIsSentBetweenTwoCellsOfASeries) {
  Metric* const metric = Make("p");
  const auto sizes = [&](size_t value_length, const std::vector<MetricFieldValue>& values) {
    metric->impl_->ClearCollector();
    metric->WithTagValues({std::string(value_length, 'v')})->Emit(values);
    std::vector<size_t> result;
    for (const Packet& packet : Flush(sender_, All())) {
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

TEST_F(EncoderTest, ManySuffixesKeepTheirNamesWhateverTheirOrderAndType) {
  constexpr int kSuffixes = 30;
  Metric* const metric = Make("p");
  const auto name = [](int suffix) { return "s" + std::to_string(suffix); };
  for (int i = 0; i < kSuffixes; ++i) {
    const int last = kSuffixes - 1 - i;
    metric->WithTagValues({"up"})->Emit({WithSuffix(name(i), Store(i))});
    metric->WithTagValues({"down"})->Emit({WithSuffix(name(last), Store(last))});
    metric->WithTagValues({"other"})->Emit({WithSuffix(name(last), IncrCounter(last))});
  }
  const std::vector<Packet> packets = Flush(sender_, All());
  ASSERT_EQ(packets.at(0).block_count, 3u * kSuffixes);
  for (const auto& block : packets[0].blocks) {
    const auto& series = block.series.at(0);
    EXPECT_EQ(block.name, "p.m." + name(static_cast<int>(series.values.at(0))));
    EXPECT_EQ(block.wire_type, series.tags.at(0).value == "other" ? 3 : 1);
  }
}

TEST_F(EncoderTest, EachNumberStaysWithItsSeriesAndSuffixWhoeverElseIsIdle) {
  Metric* const metric = Make("p");
  std::map<std::string, double> awake, asleep;
  for (int series = 0; series < 50; ++series) {
    const std::string tag = std::to_string(series);
    const auto item = metric->WithTagValues({tag});
    const bool idle = series % 7 == 0;
    for (int suffix = 0; suffix < (series == 20 ? 70 : series % 4); ++suffix) {
      const std::string name = "s" + std::to_string(suffix);
      item->Emit({WithSuffix(name, Store(100 * series + suffix))});
      (idle ? asleep : awake)["p.m." + name + " " + tag] = 100 * series + suffix;
    }
    item->active_ = !idle;
  }
  const auto flushed = [&] {
    std::map<std::string, double> numbers;
    for (const Packet& packet : Flush(sender_, All())) {
      for (const auto& block : packet.blocks) {
        const auto& series = block.series.at(0);
        numbers[block.name + " " + series.tags.at(0).value] = series.values.at(0);
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
    for (const Packet& packet : Flush(sender_, collectors)) counts.push_back(packet.block_count);
    return counts;
  };
  EXPECT_THAT(blocks({0, 2, 1}), ElementsAre(2, 1));
  EXPECT_THAT(blocks({0, 1, 2}), ElementsAre(1, 1, 1));
  EXPECT_THAT(blocks({}), IsEmpty());
}

TEST_F(EncoderTest, WhatEndedOrIsIdleIsLeftOut) {
  for (const char* const prefix : {"p", "q", "r"}) Make(prefix)->WithTags({})->Emit({Store(1)});
  const CollectorList planned = All();
  Metric* idle = nullptr;
  client_.Registry("r")->GetMetric(idle, "m");
  idle->WithTags({})->active_ = false;
  client_.Registry("p")->RemoveMetric("m");
  client_->metric_factory_->RemoveRegistry("q", "t1");
  EXPECT_THAT(Flush(sender_, planned), IsEmpty());
  idle->WithTags({})->active_ = true;
  EXPECT_EQ(Flush(sender_, planned).size(), 1u) << "nothing was drained meanwhile";
}

TEST_F(EncoderTest, ASeriesWhoseTagsAreNotItsMetricsIsReportedOnceAFlush) {
  struct DeafSender final : MetricSender {
    using MetricSender::MetricSender;
    ~DeafSender() override { Exit(); }
    ReturnCode Init() override { return ReturnCode::kOk; }
    void AtFork() override {}
    void SendToSocket(char* /*buf*/, int /*len*/) override {}
  } sender("t1", &*client_);
  Make("p.q");
  Metric* other = nullptr;  // of the same full name, and so in the same collector
  client_.Registry("p")->CreateMetric(other, "q.m", {"a", "b"}, nullptr);
  other->WithTags({{"a", "quiet"}});
  other->WithTags({})->Emit({Observe(1), IncrCounter(1)});
  const CollectorList collectors = All();
  const std::string log =
      tidegate::test::LogOf([&] { sender.encoder_->PackCollector(collectors); }, 3);
  EXPECT_EQ(tidegate::test::CountOf("]Internal Error with Tag storage!!!!\n", log), 2u) << log;
}

TEST(EncodedTagsTest, AreTheSameAheadAndInTheFlush) {
  for (const bool pre_encode : {false, true}) {
    tidegate::test::TestClient client(
        tidegate::test::ReportTo("", tidegate::test::kNeverDue, pre_encode));
    tidegate::test::ListSender sender(client);
    Metric* metric = nullptr;
    client.Registry("p", "t1", {{"bb", "registry's"}})
        ->CreateMetric(metric, {"m", {"c", "a"}, {{"b", "own"}}, {}, nullptr});
    const auto item = metric->WithTags({{"c", "1"}});
    EXPECT_EQ(item->encoded_tags_.empty(), !pre_encode);
    item->Emit({Store(1)});
    const Packet packet = Flush(sender, {metric->impl_->collector_}).at(0);
    const std::vector<Tag> tags{{"a", "-"}, {"b", "own"}, {"bb", "registry's"}, {"c", "1"}};
    EXPECT_EQ(packet.blocks.at(0).series.at(0).tags, tags);
    EXPECT_EQ(packet.blocks[0].series[0].tag_hash,
              lattice_kit::codec::TagVecFNVHash(
                  {{"a", "-"}, {"b", "own"}, {"bb", "registry's"}, {"c", "1"}}));
  }
}

}  // namespace
}  // namespace METRICS

#include "metrics/metric_encoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "agent/packet_reader.h"
#include "codec/fnv_hash.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_sender.h"
#include "support/environment.h"

namespace METRICS {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using tidegate::agent::Packet;
using Strings = std::vector<std::string>;

// Keeps what the encoder sends. Its own thread never leaves the wait for `Init`.
class RecordingSender final : public MetricSender {
 public:
  explicit RecordingSender(MetricClient* client) : MetricSender("t1", client) {
    encoder_->Init("acc", "proj", "service");
  }
  ~RecordingSender() override { Exit(); }
  ReturnCode Init() override { return ReturnCode::kOk; }
  void AtFork() override {}
  void SendToSocket(char* buf, int len) override {
    Packet& packet = packets_.emplace_back();
    tidegate::agent::ReadError error;
    EXPECT_TRUE(ReadPacket(buf, static_cast<size_t>(len), &packet, &error)) << error.reason;
    EXPECT_EQ(packet.tenant_tags.at(1).value, "service");
    EXPECT_EQ(statistic_.metric_num, static_cast<int>(packet.block_count));
    EXPECT_EQ(statistic_.series_num, static_cast<int>(packet.series_count));
    bodies.emplace_back(buf + packet.header_len, packet.body_len);
  }
  // The packets of a flush at second `now`.
  std::vector<Packet> Flush(const CollectorList& collectors, long now = 1000) {
    last_flush_ts_ = now;
    encoder_->PackCollector(collectors);
    return std::exchange(packets_, {});
  }

  Strings bodies;

 private:
  std::vector<Packet> packets_;
};

// The blocks of a packet as "type name fields@timestamp tags=values".
Strings Blocks(const Packet& packet) {
  Strings blocks;
  for (const auto& block : packet.blocks) {
    std::string text = std::to_string(block.wire_type) + " " + block.name;
    for (const auto& field : block.fields) text += " " + field.name;
    text += "@" + std::to_string(block.timestamp);
    for (const auto& tag : block.series.at(0).tags) text += " " + tag.key + ":" + tag.value;
    for (const double value : block.series[0].values) text += "=" + testing::PrintToString(value);
    blocks.push_back(text);
    EXPECT_EQ(block.name_hash, lattice_kit::codec::StrFNVHash(block.name, 0x811c9dc5)) << text;
  }
  return blocks;
}

class EncoderTest : public testing::Test {
 protected:
  static tidegate::test::TestClientOptions Options(bool pre_encode = false) {
    tidegate::test::TestClientOptions options;
    options.default_interval = 86400;  // the client's own flush threads sleep through the test
    options.core.pre_encode_tags = pre_encode;
    return options;
  }
  Metric* Make(const std::string& prefix, const std::string& name = "m") {
    Metric* metric = nullptr;
    client_.Registry(prefix, "t1", {}, 5)->CreateMetric(metric, name, {"a"}, nullptr);
    return metric;
  }
  CollectorList All() { return client_->collector_factory_->GetTenantCollector("t1"); }

  tidegate::test::TestClient client_{Options()};
  RecordingSender sender_{&*client_};
};

TEST_F(EncoderTest, EachKindHasItsBlocksAndItsPreviousPoint) {
  const auto item = Make("p")->WithTags({{"a", "x"}});
  item->Emit({WithSuffix("", Store(1.5)), Incr(30), IncrCounter(5), IncrMeter(5), Add(5)});
  std::vector<Packet> packets = sender_.Flush(All(), 1000);
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_THAT(Blocks(packets[0]),
              UnorderedElementsAre("1 p.m@1000 a:x=1.5", "2 p.m.rate@1000 a:x=6",
                                   "3 p.m.counter@1000 a:x=5", "4 p.m.meter@1000 a:x=5",
                                   "4 p.m.meter.rate@1000 a:x=1",
                                   "8 p.m.delta_counter counter rate delta@1000 a:x=5=1=5"));
  EXPECT_THAT(Blocks(packets[1]),
              UnorderedElementsAre("3 p.m.counter@995 a:x=0", "4 p.m.meter@995 a:x=0",
                                   "4 p.m.meter.rate@995 a:x=0",
                                   "8 p.m.delta_counter counter rate delta@995 a:x=0=0=0"));
  EXPECT_EQ(sender_.Flush(All(), 1005).size(), 1u);
  EXPECT_EQ(sender_.Flush(All(), 1010).size(), 1u);
  EXPECT_THAT(sender_.Flush(All(), 1015), IsEmpty()) << "all is quiet";
  item->Emit({IncrCounter(2)});
  packets = sender_.Flush(All(), 1020);
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_THAT(Blocks(packets[0]), ElementsAre("3 p.m.counter@1020 a:x=7"));
  EXPECT_THAT(Blocks(packets[1]), ElementsAre("3 p.m.counter@1015 a:x=5"));
}

TEST_F(EncoderTest, APacketThatReachesTheLimitIsSentBetweenTwoCellsOfASeries) {
  Metric* const metric = Make("p");
  const auto sizes = [&](size_t value_length, const std::vector<MetricFieldValue>& values) {
    metric->impl_->ClearCollector();
    metric->WithTagValues({std::string(value_length, 'v')})->Emit(values);
    std::vector<size_t> result;
    for (const Packet& packet : sender_.Flush(All())) {
      result.push_back(packet.header_len + packet.body_len);
      for (const auto& block : packet.blocks)
        EXPECT_EQ(block.timestamp, packet.blocks[0].timestamp);
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

TEST_F(EncoderTest, APacketHoldsOneRegistryAndStandingApartCostsOne) {
  Metric* const metrics[] = {Make("p"), Make("q"), Make("p", "n")};
  const auto blocks = [&](std::initializer_list<int> order) {
    CollectorList collectors;
    for (const int i : order) {
      metrics[i]->WithTags({})->Emit({Store(1)});
      collectors.push_back(metrics[i]->impl_->collector_);
    }
    std::vector<size_t> counts;
    for (const Packet& packet : sender_.Flush(collectors)) counts.push_back(packet.block_count);
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
  EXPECT_THAT(sender_.Flush(planned), IsEmpty());
  idle->WithTags({})->active_ = true;
  EXPECT_EQ(sender_.Flush(planned).size(), 1u) << "nothing was drained meanwhile";
}

TEST_F(EncoderTest, TagsEncodedAheadEqualThoseOfTheFlush) {
  for (const bool pre_encode : {false, true}) {
    tidegate::test::TestClient client(Options(pre_encode));
    RecordingSender sender(&*client);
    Metric* metric = nullptr;
    client.Registry("p", "t1", {{"bb", "registry's"}})
        ->CreateMetric(metric, {"m", {"c", "a"}, {{"b", "own"}}, {}, nullptr});
    const auto item = metric->WithTags({{"c", "1"}});
    EXPECT_EQ(item->encoded_tags_.empty(), !pre_encode);
    item->Emit({Store(1)});
    const Packet packet = sender.Flush({metric->impl_->collector_}).at(0);
    EXPECT_THAT(Blocks(packet), ElementsAre("1 p.m.store@1000 a:- b:own bb:registry's c:1=1"));
    EXPECT_EQ(packet.blocks[0].series[0].tag_hash,
              lattice_kit::codec::TagVecFNVHash(
                  {{"a", "-"}, {"b", "own"}, {"bb", "registry's"}, {"c", "1"}}));
    sender_.bodies.push_back(sender.bodies.at(0));
  }
  EXPECT_EQ(sender_.bodies[0], sender_.bodies[1]);
}

TEST(PacketPartsTest, ABlockOpensAgainFromItsSavedHeader) {
  MetricDataPack pack;
  const std::string filler(262143 - 20, 'f');  // makes the header move the buffer
  pack.PutRaw(filler.data(), 262143 - 20);
  const std::string fields = MetricEncoder::PrePack({{"f", lattice_kit::codec::kCodecValueDouble}});
  MetricEncoder::EncodeMetricHeader(pack, MetricsType::kMultiField, 7, "name", fields, 9, true);
  MetricEncoder::EncodeOneSeriesValue(pack, "tags", {0}, {});
  EXPECT_EQ(pack.series_count, 0u);
  MetricEncoder::EncodeOneSeriesValue(pack, "tags", {0}, {1.5});
  MetricEncoder::RefillMetricHeader(pack);
  MetricEncoder::RefillMetricHeader(pack);
  EXPECT_EQ(pack.block_count, 1u);
  const std::string block = pack.Bytes().substr(filler.size());
  EXPECT_EQ(block.substr(0, 8), std::string("\x43\0\0\0\1\0\0\0", 8));

  MetricEncoder::Reset(pack);
  pack.PutRaw("codec header", 12);
  MetricEncoder::CopyFromCurrentMetricHeader(pack);
  MetricEncoder::EncodeOneSeriesValue(pack, "tags", {0}, {1.5});
  MetricEncoder::RefillMetricHeader(pack);
  EXPECT_EQ(pack.Bytes(), "codec header" + block);
}

TEST(PacketPartsTest, AResultOfTheWrongSizeIsReported) {
  EXPECT_THAT(tidegate::test::LogOf([] {
                EXPECT_FALSE(CheckSendRes(MetricsType::kMeter, {}, 2));
                EXPECT_FALSE(CheckSendRes(MetricsType::kMeter, {1}, 2));
              }),
              testing::MatchesRegex(".*]Invalid Metric.4. array size .require: 2 actual: 1.\n"));
}

}  // namespace
}  // namespace METRICS

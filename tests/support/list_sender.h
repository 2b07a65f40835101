#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <utility>
#include <vector>

#include "agent/packet_reader.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_encoder.h"
#include "metrics/metric_sender.h"
#include "support/environment.h"

namespace tidegate::test {

// The encoder of "t1" with a list in place of its sender.
class PacketList final : public METRICS::PacketSender {
 public:
  PacketList() : PacketSender(false) { encoder_.Init("acc", "proj", "service"); }

  void SendPacket(const METRICS::FinishedPacket& sent) override {
    if (between) std::exchange(between, nullptr)();
    agent::Packet& packet = packets.emplace_back();
    agent::ReadError error;
    EXPECT_TRUE(ReadPacket(sent.begin, static_cast<size_t>(sent.length), &packet, &error))
        << error.reason;
    EXPECT_EQ(packet.tenant_tags.at(1).value, "service");
    EXPECT_EQ(sent.metric_num, static_cast<int16_t>(packet.block_count));
    EXPECT_EQ(sent.series_num, static_cast<int16_t>(packet.series_count));
  }
  void CountLostSeries() override { ADD_FAILURE(); }

  // The packets of a flush at second `now`.
  std::vector<agent::Packet> Flush(const METRICS::CollectorList& collectors, int64_t now = 1000) {
    last_flush_ts_ = now;
    encoder_.PackCollector(collectors);
    return std::exchange(packets, {});
  }

  std::function<void()> between;  // done at the next packet, in the middle of a flush
  std::vector<agent::Packet> packets;

 private:
  METRICS::MetricEncoder encoder_{this, "t1"};
};

// A sender of "t1" whose transport is a list; replaces the client's own.
class ListSender final : public METRICS::MetricSender {
 public:
  explicit ListSender(TestClient& client) : MetricSender("t1", &*client) {
    client->sender_manager_->RemoveSender("t1");
    encoder_->Init("acc", "proj", "service");
  }
  ~ListSender() override { Exit(); }

  METRICS::ReturnCode Init() override { return METRICS::ReturnCode::kOk; }
  void AtFork() override {}
  void SendToSocket(char* buf, int len) override {
    list.SendPacket({buf, len, statistic_.metric_num, statistic_.series_num});
  }

  PacketList list;
};

}  // namespace tidegate::test

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

// A sender of "t1" whose transport is a list; replaces the client's own.
class ListSender final : public METRICS::MetricSender {
 public:
  explicit ListSender(TestClient& client) : MetricSender("t1", &*client) {
    client->sender_manager_->RemoveSender("t1");
    encoder_->Init("acc", "proj", "service");
  }
  ~ListSender() override { Exit(); }

  METRICS::ReturnCode Init() override {
    state_.store(METRICS::MetricState::READY, std::memory_order_release);
    return METRICS::ReturnCode::kOk;
  }
  void AtFork() override {}
  void SendToSocket(char* buf, int len) override {
    if (between) std::exchange(between, nullptr)();
    agent::Packet& packet = packets.emplace_back();
    agent::ReadError error;
    EXPECT_TRUE(ReadPacket(buf, static_cast<size_t>(len), &packet, &error)) << error.reason;
    EXPECT_EQ(packet.tenant_tags.at(1).value, "service");
    EXPECT_EQ(statistic_.metric_num, static_cast<int16_t>(packet.block_count));
    EXPECT_EQ(statistic_.series_num, static_cast<int16_t>(packet.series_count));
  }

  std::function<void()> between;  // done at the next packet, in the middle of a flush
  std::vector<agent::Packet> packets;
};

}  // namespace tidegate::test

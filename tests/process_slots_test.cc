#include "agent/process_slots.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/slot_file.h"

namespace tidegate::agent {
namespace {

using std::chrono::seconds;

class ProcessSlotsTest : public testing::Test {
 protected:
  ProcessSlotsTest() { Make(); }
  void Make() {
    slots_.emplace([this](const ProcessId& process) { return live_.count(process) != 0; },
                   &health_);
  }
  // A client of that process connects and sends a packet, of now unless it is `before`.
  uint32_t Send(const ClientId& client, int64_t before = 0, const std::string& project = "") {
    live_.insert(client.process());
    Packet packet;
    packet.tenant = "t1";
    packet.tenant_tags = {{"account_id", "a"}, {"project_id", project}};
    packet.blocks.emplace_back().timestamp = time_ - before;
    packet.send_time_ms = time_ * 1000;
    return slots_->SlotOf(packet, client);
  }
  void End(const ClientId& client) { live_.erase(client.process()); }
  void Pass(int64_t time) {
    for (; time > 0; --time) {
      ++time_;
      slots_->Sweep(ProcessSlots::TimePoint(seconds(time_)));
    }
  }

  Health health_;
  int64_t time_ = 1700000000;
  std::set<ProcessId> live_;
  std::optional<ProcessSlots> slots_;
};

TEST_F(ProcessSlotsTest, StaySmallOverAThousandRestartsOfEightWorkers) {
  constexpr pid_t kWorkers = 8;
  std::vector<ClientId> workers;
  std::set<std::pair<uint32_t, int64_t>> points;  // slot and time
  uint64_t connection = 0;
  for (pid_t i = 0; i < kWorkers; ++i) workers.push_back({10 + i, ++connection, 1});
  for (int second = 0; second < 8000; ++second) {
    std::set<uint32_t> numbers;
    for (size_t i = 0; i < kWorkers; ++i) {
      ClientId& worker = workers[i];
      if (second % 64 == static_cast<int>(i) * 8) {
        // Its last points are of the boundary to come. The next process has its id, and begins
        // with the points of the interval before.
        EXPECT_TRUE(points.insert({Send(worker, -1), time_ + 1}).second);
        End(worker);
        worker.start += 1;
        Send(worker);
        EXPECT_TRUE(points.insert({Send(worker, 1), time_ - 1}).second);
      }
      worker.connection = ++connection;
      const uint32_t slot = Send(worker);
      EXPECT_TRUE(points.insert({slot, time_}).second);
      EXPECT_TRUE(numbers.insert(slot).second);
    }
    ASSERT_LE(*numbers.rbegin(), 9U);
    Pass(1);
  }
  // All anew at once, twice: those of the ones before are free again.
  for (uint32_t round = 0; round < 2; ++round) {
    for (const ClientId& worker : workers) End(worker);
    Pass(200);
    for (uint32_t i = 0; i < kWorkers; ++i) {
      workers[i].start += 1;
      EXPECT_EQ(Send(workers[i]), i);
    }
    EXPECT_EQ(health_.slots, 8U);
  }
}

TEST_F(ProcessSlotsTest, HoldsANumberForTwoIntervalsThatItSaw) {
  const struct {
    std::vector<int64_t> steps;  // seconds between packets; negative: points of so much before
    int64_t ahead;               // of the clock, the last packet
    int64_t hold;
  } kCases[] = {
      {{}, 0, 125},    {{1}, 0, 7}, {{10, 10}, 0, 25}, {{10, 10}, 50, 105}, {{10, -60, 60}, 0, 125},
      {{3600}, 0, 125}};
  pid_t pid = 100;
  for (const auto& [steps, ahead, hold] : kCases) {
    const ClientId worker = {pid++, 1, 1};
    EXPECT_EQ(Send(worker), 0U);
    for (const int64_t step : steps) {
      if (step < 0) {
        Send(worker, -step);
      } else {
        Pass(step);
        Send(worker);
      }
    }
    Send(worker, -ahead);
    End(worker);
    Pass(hold);
    EXPECT_EQ(Send(worker), 0U);  // it has come again in time
    End(worker);
    Pass(hold);
    EXPECT_EQ(health_.slots, 1U);
    Pass(1);
    EXPECT_EQ(health_.slots, 0U);
  }
}

TEST_F(ProcessSlotsTest, GoByIdentityAndProcessOrElseConnection) {
  const ClientId named[] = {{7, 1, 5}, {7, 2, 5}, {7, 3, 6}, {8, 4, 0}};
  const uint32_t numbers[] = {0, 0, 1, 2};
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(Send(named[i]), numbers[i]);
  EXPECT_EQ(Send({0, 5}), 3U);
  EXPECT_EQ(Send({0, 6}), 4U);
  EXPECT_EQ(Send({0, 5}), 3U);
  EXPECT_EQ(Send(named[3], 0, "other"), 0U);
  EXPECT_EQ(Send(named[0], 0, "other"), 1U);
}

TEST_F(ProcessSlotsTest, ArePassedOnToTheNextAgentInAFileOfItsOwn) {
  char folder[] = "/tmp/slots_XXXXXX";
  const std::string path = std::string(mkdtemp(folder)) + "/s";
  for (pid_t pid = 100; pid > 90; --pid) Send({pid, 1, 5}, 0, pid % 2 == 0 ? "even" : "odd");
  Send({0, 7});
  EXPECT_TRUE(WriteSlots(path, slots_->Slots()));
  std::ofstream(path, std::ios::app) << "90 5 1 70000\n-1 5 1 1\n100 5 1 0\nx\n89 5 1 3\n";
  Make();
  slots_->Restore(ReadSlots(path));
  EXPECT_EQ(health_.slots, 11U);
  EXPECT_EQ(Send({91, 2, 5}, 0, "odd"), 4U);
  EXPECT_EQ(Send({90, 2, 5}, 0, "even"), 5U);
  EXPECT_EQ(Send({100, 2, 5}, 0, "even"), 0U);
  live_ = {{91, 5}};
  Pass(127);
  EXPECT_EQ(health_.slots, 1U);

  EXPECT_TRUE(WriteSlots(path + "2", {}));
  std::filesystem::create_symlink(path, path + "3");
  for (const char* other : {"2", "3", "none"}) EXPECT_TRUE(ReadSlots(path + other).empty());
  std::filesystem::remove_all(folder);
  EXPECT_FALSE(WriteSlots(path, {}));
}

TEST_F(ProcessSlotsTest, AreBounded) {
  for (uint64_t i = 0; i < 2000; ++i) Send({7, i, 1}, 0, std::to_string(i));
  EXPECT_EQ(health_.slots, ProcessSlots::kMaxSlotsOfProcess);
  EXPECT_EQ(health_.slotless_packets, 2000 - ProcessSlots::kMaxSlotsOfProcess);
  for (uint64_t i = 0; i < 70000; ++i) Send({0, 10000 + i});
  EXPECT_EQ(health_.slots, ProcessSlots::kMaxSlots);
  EXPECT_EQ(Send({9, 1}), kNoSlot);
  EXPECT_EQ(Send({0, 10000}), 0U);
  live_.clear();
  Pass(1);
  time_ += 125;
  Pass(1);
  EXPECT_EQ(health_.slots, 0U);
  EXPECT_EQ(Send({9, 1}), 0U);
}

}  // namespace
}  // namespace tidegate::agent

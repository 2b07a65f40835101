#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agent/bounded_queue.h"
#include "agent/connected_processes.h"
#include "agent/decoder.h"
#include "agent/packet_queue.h"
#include "golden/golden_file.h"

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(BoundedQueueTest, DropsTheOldestAndHandsOutTheRestAfterItWasClosed) {
  using Queue = BoundedQueue<int>;
  Queue queue(3000);
  for (int i = 0; i < 2; ++i) EXPECT_THAT(queue.Push(i, 900), IsEmpty());
  EXPECT_THAT(queue.Push(2, 1500), ElementsAre(Pair(0, _)));
  EXPECT_THAT(queue.Push(3, 400), IsEmpty());
  EXPECT_THAT(queue.Push(4, 4000), ElementsAre(Pair(1, _), Pair(2, _), Pair(3, _), Pair(4, _)));
  queue.Push(5, 0);
  queue.Close();
  int item = 0;
  EXPECT_EQ(queue.Pop(&item, seconds(20)), Queue::Result::kItem);
  EXPECT_EQ(item, 5);
  EXPECT_EQ(queue.Pop(&item, seconds(20)), Queue::Result::kClosed);
  for (int i = 0; i < 1000; ++i) queue.Push(i, 0);  // nothing is for nothing
  EXPECT_LT(queue.size(), 200U);
}

class PacketQueueTest : public testing::Test {
 protected:
  using Message = SeqpacketServer::Message;

  // `text` in a message of `bytes`.
  void Push(ClientId client, const std::string& text, size_t bytes = 1000) {
    Message message;
    message.size = message.sent_size = bytes;
    message.data = std::make_unique<char[]>(bytes + 1);
    text.copy(message.data.get(), bytes);
    message.client = client;
    queue_.Push(std::move(message));
  }
  // All that waits, in the order in which it is handed out.
  std::vector<std::string> PopAll() {
    std::vector<std::string> texts;
    Message message;
    while (queue_.Pop(&message, milliseconds(0)) == PacketQueue::Result::kItem) {
      texts.emplace_back(message.data.get());
      EXPECT_FALSE(queue_.IsIdle());
    }
    EXPECT_TRUE(queue_.IsIdle());
    EXPECT_EQ(health_.queued_packets + health_.queued_bytes, 0U);
    return texts;
  }

  Health health_;
  PacketQueue queue_{100000, &health_};
};

TEST_F(PacketQueueTest, TheOneThatFillsItMakesRoomAndIsNamed) {
  const ClientId modest{7, 1};
  const ClientId unknown[] = {{0, 2}, {0, 3}};  // of whom the kernel tells nothing
  std::vector<std::string> kept;
  for (int i = 0; i < 20; ++i) {
    kept.push_back("m" + std::to_string(i));
    Push(modest, kept.back());
    Push(unknown[i % 2], "u" + std::to_string(i));
    // One process, which comes anew each time, with messages that are larger or smaller.
    for (uint64_t k = 0; k < 50; ++k) Push({9, 10 + k}, "x", k % 7 == 3 ? 60000 : 400);
  }
  EXPECT_LE(health_.queued_bytes, 100000U);
  const uint64_t dropped = health_.dropped_full;
  std::vector<std::string> texts = PopAll();
  EXPECT_EQ(texts.size() + dropped, 20U * 52);
  // In turn, as long as all of them have something.
  const std::vector<std::string> first = {"m0", "u0", "u1", "x", "m1", "u2", "u3", "x", "m2"};
  ASSERT_GT(texts.size(), first.size());
  EXPECT_TRUE(std::is_permutation(first.begin(), first.end(), texts.begin()));
  texts.erase(std::remove_if(texts.begin(), texts.end(),
                             [](const std::string& text) { return text[0] != 'm'; }),
              texts.end());
  EXPECT_EQ(texts, kept);

  const PacketQueue::Clock::time_point now;
  const std::string number = std::to_string(dropped) + " packets of ";
  EXPECT_THAT(queue_.ReportDrops(now + seconds(1)),
              testing::MatchesRegex("dropped " + number + "[0-9]+ bytes .* 9: " + number + ".*"));
  Push(modest, "", 200000);
  EXPECT_EQ(health_.dropped_full, dropped + 1);
  EXPECT_EQ(queue_.ReportDrops(now + seconds(60)), "");
  EXPECT_EQ(queue_.ReportDrops(now + seconds(61)),
            "dropped 1 packets of 200000 bytes from the full queue, most of process 7: "
            "1 packets of 200000 bytes");
  EXPECT_EQ(queue_.ReportDrops(now + seconds(200)), "");
}

TEST_F(PacketQueueTest, AProcessIsLiveWhileItIsConnectedOrWaitsHere) {
  const ClientId first{7, 1, 100};
  const ClientId second{7, 2, 100};
  const ClientId later{7, 3, 200};  // another process of that number
  ConnectedProcesses connected;
  std::vector<ConnectedProcesses::Connection> connections;
  for (const ClientId& client : {first, second}) {
    connections.emplace_back(&connected, client.process());
  }
  connections.pop_back();
  EXPECT_TRUE(connected.Contains(first.process()));
  Push(second, "");
  connections.clear();
  EXPECT_FALSE(connected.Contains(first.process()));
  EXPECT_TRUE(queue_.Holds(first.process()));
  EXPECT_FALSE(queue_.Holds(later.process()));
  PopAll();
  EXPECT_FALSE(queue_.Holds(first.process()));

  EXPECT_GT(StartOf(getpid()), 0U);
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_NAME, "a) Z 1 2 (");
    _exit(StartOf(getpid()) >= StartOf(getppid()) && StartOf(getppid()) > 0 ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(StartOf(child), 0U);
}

TEST_F(PacketQueueTest, ManySendersWithOneEmptyMessageFillItAsWell) {
  for (uint64_t i = 1; i <= 10000; ++i) Push({0, i}, "", 0);
  EXPECT_LT(health_.queued_packets, 500U);
  EXPECT_EQ(health_.queued_packets + health_.dropped_full, 10000U);
}

TEST_F(PacketQueueTest, WhatIsNotDecodedInTimeIsCounted) {
  struct SlowSink : PacketSink {
    void Handle(const Packet& /*packet*/, const ClientId& /*client*/) override {
      std::this_thread::sleep_for(milliseconds(20));  // as if it had much to do
    }
  } sink;
  const std::string gauge = ReadGolden("gauge.hex");
  for (int i = 0; i < 50; ++i) Push({1 + i % 3}, gauge, gauge.size());
  Log log(-1);
  Decoder decoder(
      &queue_, {&sink}, [] {}, &health_, &log);
  queue_.Close(PacketQueue::Clock::now() + milliseconds(200));
  decoder.Run();
  EXPECT_GT(health_.packets, 0U);
  EXPECT_LE(health_.packets, 11U);
  EXPECT_EQ(health_.packets + health_.dropped_shutdown, 50U);
  EXPECT_EQ(health_.queued_packets + health_.queued_bytes, 0U);
}

}  // namespace
}  // namespace tidegate::agent

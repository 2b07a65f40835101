#include "agent/batch_queue.h"

#include <gmock/gmock.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agent/recent_arrivals.h"
#include "agent/send_times.h"

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

TEST(SendTimesTest, SpreadsHostsOverTheIntervalThatIsSeen) {
  using WallTime = SendTimes::WallTime;
  const WallTime boundary(seconds(1700000000));
  std::array<int, 10> hosts = {};
  for (int i = 0; i < 10000; ++i) {
    const uint64_t hash = SpreadHash("web-" + std::to_string(i), "forward");
    const WallTime next = NextSendTime(boundary, seconds(10), hash);
    ASSERT_TRUE(next > boundary && next <= boundary + seconds(10));
    ASSERT_EQ(NextSendTime(next, seconds(10), hash), next + seconds(10));
    ++hosts[static_cast<size_t>((next - boundary - milliseconds(1)) / seconds(1))];
  }
  EXPECT_THAT(hosts, testing::Each(testing::AllOf(testing::Gt(800), testing::Lt(1200))));

  const struct {
    std::vector<std::pair<int, int>> services;  // interval, and points at each flush
    int interval;
  } kCases[] = {{{{1, 1}}, 1},
                {{{10, 1000}}, 10},
                {{{10, 1000}, {60, 10}}, 10},  // as those of the library on itself
                {{{10, 100}, {60, 1000}}, 60},
                {{{15, 100}, {10, 100}}, 10},
                {{{30, 100}, {1, 1}}, 30},
                {{{60, 1}}, 60},
                {{}, 10}};
  for (const auto& test : kCases) {
    RecentArrivals arrivals;
    for (int second = 1700000040; second <= 1700000160; ++second) {
      for (const auto& [interval, points] : test.services) {
        if (second % interval == 0) arrivals.Add(second, static_cast<uint64_t>(points));
      }
      const bool early = second < 1700000100;
      ASSERT_TRUE(!early || arrivals.Interval(second) == seconds(10));
    }
    EXPECT_EQ(arrivals.Interval(1700000160), seconds(test.interval));
  }
}

TEST(SendTimesTest, BoundsTheRateAfterAnOutage) {
  SendTimes times({{}, 2}, seconds(1));
  steady_clock::time_point now;
  SendTimes::WallTime wall(seconds(1700000000));
  times.Sent(now, wall, 1000);
  EXPECT_LE(times.send_at(), now);
  times.Failed(now + seconds(7));
  times.Sent(now, wall, 100);  // at 20 a second, as none comes
  EXPECT_EQ(times.send_at(), now + seconds(5));
  times.Sent(now, wall, 1000000);
  EXPECT_EQ(times.send_at(), now + seconds(60));
  for (int i = 0; i < 60; ++i) times.Came(wall += seconds(1), 100);
  times.Sent(now, wall, 1000);
  EXPECT_EQ(times.send_at(), now + seconds(5));
  times.Emptied(now, wall);
  EXPECT_EQ(times.send_at(), now);
  times.Sent(now, wall, 1000);
  EXPECT_EQ(times.send_at(), now);
}

TEST(BatchQueueTest, HoldsPointsForTheTimeOfTheSpreadWhileThereIsRoom) {
  BatchLimits limits;
  limits.interval = seconds(3600);
  limits.queue_points = 40;
  limits.batch_points = 1;
  // Half an hour from now.
  const auto now = std::chrono::system_clock::now().time_since_epoch() + seconds(1800);
  const double part = static_cast<double>(now % seconds(3600) / milliseconds(1)) / 3600000;
  limits.send.spread = static_cast<uint64_t>(part * 4294967296.0) << 32U;
  BatchQueue queue(limits);
  const auto take = [&queue] {
    Batches batch = queue.Take(steady_clock::now());
    while (!batch.empty() && !batch.front().packed) {
      batch.front().packed = true;
      queue.ReturnPacked(std::move(batch));
      batch = queue.Take(steady_clock::now());
    }
    return !batch.empty();
  };
  EXPECT_FALSE(take());
  for (int i = 0; i < 10; ++i) queue.Append("x", 1);
  EXPECT_FALSE(take());
  for (int i = 0; i < 2; ++i) queue.Append("x", 1);
  EXPECT_TRUE(take() && take());
  EXPECT_FALSE(take());
  queue.Flush();
  EXPECT_TRUE(take());
  EXPECT_EQ(queue.Size().points, 9U);
}

TEST(BatchQueueTest, IsWaitedForAfterFlushUntilItsEnd) {
  BatchQueue queue{BatchLimits()};
  queue.Flush();
  const auto until = steady_clock::now() + milliseconds(20);
  EXPECT_TRUE(queue.Take(until).empty());
  EXPECT_GE(steady_clock::now(), until);
  std::thread last([&queue] {
    std::this_thread::sleep_for(milliseconds(20));
    queue.Append("x", 1);
    queue.End();
  });
  Batches batch = queue.Take(until + seconds(3600));
  last.join();
  ASSERT_FALSE(batch.empty());
  batch.front().packed = true;
  queue.ReturnPacked(std::move(batch));
  EXPECT_FALSE(queue.Take(until + seconds(3600)).empty());
  EXPECT_FALSE(queue.IsIdle());  // it is being sent
  EXPECT_TRUE(queue.Take(until + seconds(3600)).empty());
  EXPECT_TRUE(queue.IsIdle());
}

}  // namespace
}  // namespace tidegate::agent

// The whole road of a value: from the public interface through a real socket to the agent's reader.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "golden/golden_file.h"
#include "metrics/global_resources_limit.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_sender.h"
#include "metrics/metric_sender_manager.h"
#include "support/agent_socket.h"
#include "support/environment.h"
#include "util/metric_clock_util.h"

namespace tidegate::test {
namespace {

using METRICS::Add;
using METRICS::Incr;
using METRICS::IncrCounter;
using METRICS::IncrMeter;
using METRICS::ReturnCode;
using METRICS::Store;
using METRICS::WithSuffix;
using testing::AnyOf;
using testing::IsEmpty;
using Values = std::vector<double>;

// FNV-1a of 32 bits, written down here once more so that the library's own is held against it.
uint32_t Fnv1a(const std::string& bytes) {
  uint32_t hash = 2166136261U;
  for (const char byte : bytes) {
    hash = (hash ^ static_cast<uint8_t>(byte)) * 16777619U;
  }
  return hash;
}

// Stops the agent and checks what holds for every packet there is.
void StopAndCheck(AgentSocket& agent) {
  agent.Stop();
  EXPECT_THAT(agent.Errors(), IsEmpty());
  for (const ReceivedPacket& received : agent.Received()) {
    for (const agent::Block& block : received.packet.blocks) {
      ASSERT_EQ(block.name_hash, Fnv1a(block.name)) << block.name;
      for (const agent::Series& series : block.series) {
        std::string tags;
        for (const Tag& tag : series.tags) {
          tags += tag.key + '\0' + tag.value + '\0';
        }
        ASSERT_EQ(series.tag_hash, Fnv1a(tags)) << block.name;
      }
    }
  }
}

// What was reported of a series, by timestamp.
using Timeline = std::map<int64_t, Values>;

// The timelines by name and tag values, of names that start with `prefix`. No series may be
// reported twice for one timestamp.
std::map<std::string, Timeline> TimelinesOf(const AgentSocket& agent, const std::string& prefix) {
  std::map<std::string, Timeline> timelines;
  for (const Point& point : agent.Points()) {
    if (point.name.compare(0, prefix.size(), prefix) == 0) {
      std::string series = point.name;
      for (const Tag& tag : point.tags) {
        series += "/" + tag.value;
      }
      EXPECT_TRUE(timelines[series].emplace(point.timestamp, point.values).second)
          << series << " twice at " << point.timestamp;
    }
  }
  return timelines;
}

Values ColumnOf(const Timeline& timeline, size_t column) {
  Values values;
  for (const auto& [timestamp, row] : timeline) {
    values.push_back(row.at(column));
  }
  return values;
}

double SumOf(const Timeline& timeline, size_t column) {
  const Values values = ColumnOf(timeline, column);
  return std::accumulate(values.begin(), values.end(), 0.0);
}

TEST(RoadTest, AGaugeMakesTheDocumentedPacket) {
  using Strings = std::array<const char*, 3>;
  for (const bool pre_encode_tags : {false, true}) {
    // The name is the same, however it is put together.
    for (const auto& [prefix, name, suffix] : {Strings{"svc", "lat", ""}, {"", "svc", "lat"}}) {
      SCOPED_TRACE(std::string(name) + (pre_encode_tags ? ", tags encoded ahead" : ""));
      const TempDir dir;
      AgentSocket agent(dir.File("s"));
      TestClient client(ReportTo(agent.path(), 1, pre_encode_tags));
      client.Registry(prefix, "t1", {{"dc", "b"}});
      METRICS::Metric* const metric = client.Metric(name, {"host"}, prefix);
      const int64_t before = METRICS::WallMillis();
      metric->WithTags({{"host", "a"}})->Emit({WithSuffix(suffix, Store(1.5))});
      ASSERT_TRUE(agent.WaitForPackets(1));

      const ReceivedPacket received = agent.Received()[0];
      const int64_t timestamp = received.packet.blocks.at(0).timestamp;
      EXPECT_GT(timestamp * 1000, before);
      EXPECT_GE(received.packet.send_time_ms, timestamp * 1000);
      EXPECT_LE(received.packet.send_time_ms, METRICS::WallMillis());
      std::string expected = ReadGolden("gauge.hex");
      ASSERT_EQ(expected.size(), 200u);
      expected.replace(22, 8, received.bytes, 22, 8);  // the send time
      std::memcpy(&expected[125], &timestamp, sizeof(timestamp));
      EXPECT_EQ(received.bytes, expected);
      StopAndCheck(agent);
    }
  }
}

// One client with its agent, and a metric of each kind.
struct Road {
  explicit Road(bool pre_encode_tags)
      : agent(dir.File("s")), client(ReportTo(agent.path(), 1, pre_encode_tags)) {}

  void Emit(int worker) {
    const auto w = static_cast<size_t>(worker % 2);
    EXPECT_EQ(metric->WithTags({{"w", std::to_string(w)}})
                  ->Emit({Store(worker), Incr(3), Incr(0.25), IncrMeter(2L), IncrCounter(5),
                          IncrCounter(0.5), Add(7)}),
              ReturnCode::kOk);
    ++emissions.at(w);
  }
  void Burst(int amount) {
    burst->WithTags({})->Emit({IncrCounter(amount), IncrMeter(amount), Add(amount)});
  }

  const TempDir dir;
  AgentSocket agent;
  TestClient client;
  METRICS::Metric* metric = client.Metric("m", {"w"});
  METRICS::Metric* burst = client.Metric("burst");
  std::array<std::atomic<int>, 2> emissions{};
};

TEST(RoadTest, TotalsOfEachKindAreExactOverManyFlushes) {
  Road roads[] = {Road(false), Road(true)};
  SleepToMidSecond();  // a burst is all in one interval
  for (Road& road : roads) {
    road.Burst(4);
    road.Burst(3);
  }
  Workers emitters;
  emitters.Start(4, [&](int i) { std::for_each(roads, roads + 2, [i](Road& r) { r.Emit(i); }); });
  // A burst is in three flushes and then in none. A flush is one packet; the first one, and the one
  // in which a series comes up, bring one more of the interval before.
  for (Road& road : roads) {
    ASSERT_TRUE(road.agent.WaitForPackets(7));
  }
  emitters.Stop();
  for (Road& road : roads) {
    SleepToMidSecond();
    for (const char* w : {"0", "1"}) {
      road.metric->WithTags({{"w", w}})->Emit({Store(99)});
    }
    road.Burst(5);
    road.client->FlushAndExit();
    StopAndCheck(road.agent);
    std::map<std::string, Timeline> timelines = TimelinesOf(road.agent, "");

    for (const size_t w : {0u, 1u}) {
      const std::string tag = "/" + std::to_string(w);
      const double n = road.emissions.at(w);
      ASSERT_GT(n, 100);
      EXPECT_EQ(SumOf(timelines["p.m.rate" + tag], 0), 3.25 * n);
      EXPECT_EQ(SumOf(timelines["p.m.meter.rate" + tag], 0), 2 * n);
      EXPECT_EQ(SumOf(timelines["p.m.delta_counter" + tag], 1), 7 * n);
      EXPECT_EQ(SumOf(timelines["p.m.delta_counter" + tag], 2), 7 * n);
      for (const auto& [name, total] : {std::pair("p.m.meter", 2 * n),
                                        {"p.m.counter", 5.5 * n},
                                        {"p.m.delta_counter", 7 * n}}) {
        SCOPED_TRACE(name + tag);
        const Timeline& timeline = timelines[name + tag];
        const Values totals = ColumnOf(timeline, 0);
        ASSERT_GE(totals.size(), 5u);
        EXPECT_EQ(totals.back(), total);
        EXPECT_TRUE(std::is_sorted(totals.begin(), totals.end()));
        // A total begins with a zero for the interval before its first one.
        EXPECT_THAT(timeline.begin()->second, testing::Each(0.0));
        EXPECT_EQ(std::next(timeline.begin())->first, timeline.begin()->first + 1);
      }
      Values gauge = ColumnOf(timelines["p.m.store" + tag], 0);
      EXPECT_EQ(gauge.back(), 99);
      gauge.pop_back();
      EXPECT_THAT(gauge, testing::Each(AnyOf(w, w + 2)));
    }

    const Values kTotals{0, 7, 7, 7, 7, 12};
    const Values kIncreases{0, 7, 0, 0, 0, 5};
    EXPECT_EQ(ColumnOf(timelines["p.burst.meter"], 0), kTotals);
    EXPECT_EQ(ColumnOf(timelines["p.burst.meter.rate"], 0), kIncreases);
    EXPECT_EQ(ColumnOf(timelines["p.burst.delta_counter"], 0), kTotals);
    EXPECT_EQ(ColumnOf(timelines["p.burst.delta_counter"], 2), kIncreases);
    const Timeline& counter = timelines["p.burst.counter"];
    ASSERT_EQ(ColumnOf(counter, 0), kTotals);
    // The last but one is of the interval before the series woke up.
    EXPECT_EQ(counter.rbegin()->first, std::next(counter.rbegin())->first + 1);
  }
}

// Metrics and registries come, go and are blocked; what is not touched loses nothing. The flushes
// are driven by hand, some hundred a second, so that they meet everything that happens.
TEST(RoadTest, RemovalBlockAndRefusalsBesideFlushesLeaveOthersExact) {
  for (const bool pre_encode_tags : {false, true}) {
    const TempDir dir;
    AgentSocket agent(dir.File("s"));
    TestClient client(ReportTo(agent.path(), kNeverDue, pre_encode_tags));
    METRICS::Metric* const steady = client.Metric("steady", {"w"});
    METRICS::Metric* const blocked = client.Metric("m", {"w"}, "blocked");
    METRICS::MetricRegistry* const churn = client.Registry("churn");
    client.Metric("kept", {}, "churn");
    METRICS::MetricFactory& factory = *client->metric_factory_;
    METRICS::MetricSender* sender = nullptr;
    ASSERT_EQ(client->sender_manager_->GetSender(sender, "t1"), ReturnCode::kOk);
    METRICS::g_global_resources_limit.max_metrics_per_registry = 2;

    std::atomic<int> emissions{0};
    std::atomic<int> turns{0};
    Workers workers;
    workers.Start(1, [&](int) {
      ++sender->last_flush_ts_;
      EXPECT_TRUE(sender->DoPackAndSend());
    });
    workers.Start(2, [&](int i) {
      steady->WithTags({{"w", std::to_string(i)}})->Emit({Add(1)});
      ++emissions;
      blocked->WithTags({{"w", std::to_string(turns % 50)}})->Emit({Add(1)});
    });
    workers.Start(1, [&](int) {  // a metric that always has the same name
      METRICS::Metric* metric = nullptr;
      METRICS::Metric* refused = nullptr;
      EXPECT_EQ(churn->CreateMetric(metric, "m", {"w"}, nullptr), ReturnCode::kOk);
      for (int w = 0; w < 20; ++w) {
        metric->WithTags({{"w", std::to_string(w)}})->Emit({IncrCounter(1), Store(1)});
      }
      EXPECT_EQ(churn->CreateMetric(refused, "late", {}, nullptr), ReturnCode::kMaxMetric);
      EXPECT_EQ(churn->RemoveMetric("m"), ReturnCode::kOk);
      ++turns;
    });
    workers.Start(1, [&](int) {
      METRICS::Metric* refused = nullptr;
      EXPECT_EQ(factory.Block("t1", "blocked"), ReturnCode::kOk);
      EXPECT_EQ(blocked->registry_->CreateMetric(refused, "late", {}, nullptr),
                ReturnCode::kObjectBlocked);
      EXPECT_EQ(factory.UnBlock("t1", "blocked"), ReturnCode::kOk);
    });
    workers.Start(1, [&](int) {  // a whole registry
      client.Metric("m", {}, "brief")->WithTags({})->Emit({IncrMeter(1)});
      EXPECT_EQ(factory.RemoveRegistry("brief", "t1"), ReturnCode::kOk);
    });
    EXPECT_TRUE(WaitFor([&] { return turns >= 200; }));
    workers.Stop();
    METRICS::g_global_resources_limit.max_metrics_per_registry = 0;

    // Removed as often as it was, a metric made under the name again is reported.
    client.Metric("m", {}, "churn")->WithTags({})->Emit({Store(42)});
    client->FlushAndExit();
    StopAndCheck(agent);
    double total = 0;
    for (const auto& [series, timeline] : TimelinesOf(agent, "p.steady.")) {
      total += SumOf(timeline, 2);
    }
    EXPECT_EQ(total, emissions);
    EXPECT_EQ(SumOf(TimelinesOf(agent, "churn.m.store")["churn.m.store"], 0), 42);
    EXPECT_THAT(TimelinesOf(agent, "churn.late"), IsEmpty());
    EXPECT_THAT(TimelinesOf(agent, "blocked.late"), IsEmpty());
  }
}

TEST(RoadTest, MetricsThatShareAFullNameOutliveEachOther) {
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  TestClient client(ReportTo(agent.path(), 1, true));
  METRICS::MetricRegistry* const first_registry = client.Registry("a.b");
  METRICS::Metric* const first = client.Metric("c", {"w"}, "a.b");
  METRICS::Metric* const second = client.Metric("b.c", {"w"}, "a");
  SleepToMidSecond();
  first->WithTags({{"w", "0"}})->Emit({Add(1)});
  second->WithTags({{"w", "0"}})->Emit({Add(2)});
  ASSERT_TRUE(agent.WaitForPackets(2));  // of the flush and of the interval before

  Workers emitters;
  emitters.Start(2, [&](int i) { second->WithTags({{"w", std::to_string(i)}})->Emit({Add(1)}); });
  EXPECT_EQ(first_registry->RemoveMetric("c"), ReturnCode::kOk);
  // Long enough for a flush to meet what is left.
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  client.Metric("c", {}, "a.b")->WithTags({})->Emit({Add(4)});
  emitters.Stop();
  EXPECT_EQ(second->registry_->RemoveMetric("b.c"), ReturnCode::kOk);
  SleepToMidSecond();
  client->FlushAndExit();
  StopAndCheck(agent);
  std::map<std::string, Timeline> timelines = TimelinesOf(agent, "a.b.c.");
  const Values shared = ColumnOf(timelines["a.b.c.delta_counter/0"], 0);
  ASSERT_GE(shared.size(), 2u);
  EXPECT_EQ(shared[1], 3);
  EXPECT_EQ(SumOf(timelines["a.b.c.delta_counter"], 2), 4);
}

TEST(RoadTest, PacketsAreCutAtTheSizeLimitAndAtRegistries) {
  constexpr size_t kSizeLimit = 262143;
  constexpr size_t kSeries = 1500;
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  TestClient client(ReportTo(agent.path(), kNeverDue));
  for (const char* prefix : {"one", "two"}) {
    METRICS::Metric* const metric = client.Metric("m", {"id"}, prefix);
    for (size_t i = 0; i < kSeries; ++i) {
      // Values of one length make blocks of one length.
      const std::string digits = std::to_string(i);
      metric->WithTagValues({std::string(200 - digits.size(), '0') + digits})
          ->Emit({WithSuffix("", IncrCounter(static_cast<long>(i)))});
    }
  }
  client->FlushAndExit();
  StopAndCheck(agent);

  size_t full = 0;
  for (const ReceivedPacket& received : agent.Received()) {
    const agent::Packet& packet = received.packet;
    for (const agent::Block& block : packet.blocks) {
      EXPECT_EQ(block.name, packet.blocks[0].name);
    }
    EXPECT_LT(received.bytes.size() - packet.body_len / packet.block_count, kSizeLimit);
    full += received.bytes.size() >= kSizeLimit ? 1 : 0;
  }
  // Of either registry a full one and a rest, for the interval and for the interval before.
  EXPECT_EQ(full, 4u);
  EXPECT_EQ(agent.Received().size(), 8u);

  const std::map<std::string, Timeline> timelines = TimelinesOf(agent, "");
  EXPECT_EQ(timelines.size(), 2 * kSeries);
  for (const auto& [series, timeline] : timelines) {
    const double id = std::stod(series.substr(series.size() - 6));
    ASSERT_EQ(ColumnOf(timeline, 0), (Values{0, id})) << series;
    EXPECT_EQ(timeline.rbegin()->first, timeline.begin()->first + 1);
  }
}

}  // namespace
}  // namespace tidegate::test

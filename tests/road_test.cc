// The whole road of a value: from the public interface through a real socket to the agent's reader.

#include <array>
#include <cstring>

#include "golden/golden_file.h"
#include "metrics/global_resources_limit.h"
#include "metrics/metric_factory.h"
#include "support/agent_socket.h"
#include "support/environment.h"
#include "testing/test_clock.h"
#include "util/wall_clock.h"

namespace tidegate::test {
namespace {

using namespace METRICS;
using testing::IsEmpty;

// FNV-1a of 32 bits, written down here once more so that the library's own is held against it.
uint32_t Fnv1a(const std::string& bytes) {
  uint32_t hash = 2166136261U;
  for (const char byte : bytes) {
    hash = (hash ^ static_cast<uint8_t>(byte)) * 16777619U;
  }
  return hash;
}

// The reports of a series, by timestamp.
using Timeline = std::map<int64_t, std::vector<double>>;

// Stops the agent, checks what holds for every packet there is, and gives the timelines by name and
// tag values, of names that start with `prefix`. None may be reported twice for one timestamp.
std::map<std::string, Timeline> TimelinesOf(AgentSocket& agent, const std::string& prefix) {
  agent.Stop();
  EXPECT_THAT(agent.Errors(), IsEmpty());
  std::map<std::string, Timeline> timelines;
  for (const auto& [bytes, packet] : agent.Received()) {
    for (const agent::Block& block : packet.blocks) {
      EXPECT_EQ(block.name_hash, Fnv1a(block.name)) << block.name;
      for (const agent::Series& series : block.series) {
        std::string name = block.name, tags;
        for (const Tag& tag : series.tags) {
          name += "/" + tag.value;
          tags += tag.key + '\0' + tag.value + '\0';
        }
        EXPECT_EQ(series.tag_hash, Fnv1a(tags)) << name;
        if (name.compare(0, prefix.size(), prefix) != 0) continue;
        EXPECT_TRUE(timelines[name].emplace(block.timestamp, series.values).second)
            << name << " twice at " << block.timestamp;
      }
    }
  }
  return timelines;
}

double SumOf(const Timeline& timeline, size_t column) {
  double sum = 0;
  for (const auto& [timestamp, row] : timeline) sum += row.at(column);
  return sum;
}

TEST(RoadTest, AGaugeMakesTheDocumentedPacket) {
  using Strings = std::array<const char*, 3>;
  for (const bool pre_encode_tags : {false, true}) {
    // The name is the same, however it is put together.
    for (const auto& [prefix, name, suffix] : {Strings{"svc", "lat", ""}, {"", "svc", "lat"}}) {
      SCOPED_TRACE(std::string(name) + (pre_encode_tags ? ", tags encoded before" : ""));
      const TempDir dir;
      AgentSocket agent(dir.File("s"));
      const TestClock clock;
      TestClient client(ReportTo(agent.path(), 1, pre_encode_tags));
      client.Registry(prefix, "t1", {{"dc", "b"}});
      METRICS::Metric* const metric = client.Metric(name, {"host"}, prefix);
      const int64_t before = WallMillis();
      metric->WithTags({{"host", "a"}})->Emit({WithSuffix(suffix, Store(1.5))});
      TestClock::Flush();
      ASSERT_TRUE(agent.WaitForPackets(1));

      const ReceivedPacket received = agent.Received()[0];
      const int64_t timestamp = received.packet.blocks.at(0).timestamp;
      EXPECT_GT(timestamp * 1000, before);
      EXPECT_GE(received.packet.send_time_ms, timestamp * 1000);
      EXPECT_LE(received.packet.send_time_ms, WallMillis());
      std::string expected = ReadGolden("gauge.hex");
      ASSERT_EQ(expected.size(), 200u);
      expected.replace(22, 8, received.bytes, 22, 8);  // the send time
      std::memcpy(&expected[125], &timestamp, sizeof(timestamp));
      EXPECT_EQ(received.bytes, expected);
    }
  }
}

// Metrics and registries come, go and are blocked; those that are not touched lose nothing. The
// flushes are driven by hand, some hundred a second, so that they meet everything that happens.
TEST(RoadTest, RemovalBlockAndRefusalsBesideFlushesLeaveOthersExact) {
  for (const bool pre_encode_tags : {false, true}) {
    const TempDir dir;
    AgentSocket agent(dir.File("s"));
    TestClient client(ReportTo(agent.path(), kNeverDue, pre_encode_tags));
    METRICS::Metric* const steady = client.Metric("steady", {"w"});
    METRICS::Metric* const blocked = client.Metric("m", {"w"}, "blocked");
    MetricRegistry* const churn = client.Registry("churn");
    client.Metric("kept", {}, "churn");
    MetricFactory& factory = *client->metric_factory_;
    g_global_resources_limit.max_metrics_per_registry = 2;

    std::atomic<int> emissions{0}, turns{0}, now{1000};
    Workers workers;
    workers.Start(1, [&](int) { client.Flush(++now); });
    workers.Start(2, [&](int i) {
      steady->WithTags({{"w", std::to_string(i)}})
          ->Emit({Add(1), Incr(3), Incr(0.25), IncrMeter(2L), IncrCounter(5)});
      ++emissions;
      blocked->WithTags({{"w", std::to_string(turns % 50)}})->Emit({Add(1)});
    });
    workers.Start(1, [&](int) {  // a metric that always has the same name
      METRICS::Metric *metric = nullptr, *refused = nullptr;
      EXPECT_EQ(churn->CreateMetric(metric, "m", {"w"}, nullptr), ReturnCode::kOk);
      for (const char* w : {"0", "1", "2"}) {
        metric->WithTags({{"w", w}})->Emit({IncrCounter(1), Store(1)});
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
    g_global_resources_limit.max_metrics_per_registry = 0;

    // Removed as often as it was, a metric made under the name again is reported.
    client.Metric("m", {}, "churn")->WithTags({})->Emit({Store(42)});
    client->FlushAndExit();
    std::map<std::string, double> totals;
    for (const auto& [series, timeline] : TimelinesOf(agent, "p.steady.")) {
      const std::string name = series.substr(9, series.find('/') - 9);
      const bool total = name == "counter" || name == "meter";
      totals[name] +=
          total ? timeline.rbegin()->second[0] : SumOf(timeline, name == "delta_counter" ? 2 : 0);
    }
    const double n = emissions;
    EXPECT_THAT(totals, testing::ElementsAre(
                            testing::Pair("counter", 5 * n), testing::Pair("delta_counter", n),
                            testing::Pair("meter", 2 * n), testing::Pair("meter.rate", 2 * n),
                            testing::Pair("rate", 3.25 * n)));
    EXPECT_EQ(SumOf(TimelinesOf(agent, "churn.m.store")["churn.m.store"], 0), 42);
  }
}

}  // namespace
}  // namespace tidegate::test

#include "metrics/metric_expire_checker.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "metrics/metric_self_monitor.h"
#include "metrics/metric_sender_manager.h"
#include "support/agent_socket.h"
#include "support/environment.h"

namespace tidegate::test {
namespace {

using METRICS::MetricExpireChecker;
using METRICS::Store;

// Without a checker of the client's own no pass comes in between while a test makes its series.
TestClientOptions Options(const std::string& path = "",
                          const METRICS::CoreInitCfg& core = {false, false, false, 1, 1, 1, 8}) {
  return {{}, kNeverDue, {path}, core};
}

TEST(ExpireTest, HidesIdleSeriesAndErasesThemFromAQuarterOn) {
  using Case = std::array<size_t, 3>;
  for (const auto& test : {Case{1, 1, 1}, {3, 1, 1}, {4, 1, 1}, {8, 1, 0}, {8, 2, 2}, {8, 8, 8}}) {
    SCOPED_TRACE(testing::PrintToString(test));
    const size_t series = test[0], idle = test[1], erased = test[2], left = series - erased;
    const TempDir dir;
    AgentSocket agent(dir.File("s"));
    TestClient client(Options(agent.path()));
    METRICS::Metric* const metric = client.Metric("m", {"a"});
    std::vector<std::shared_ptr<METRICS::MetricCollectorItem>> items;
    for (size_t i = 0; i < series; ++i) {
      items.push_back(metric->WithTagValues({std::to_string(i)}));
      items[i]->Emit({Store(1)});
      items[i]->last_update_ -= i < idle ? 7202 : 7000;
    }
    items.back()->active_ = idle == series;  // a pass sets that right
    MetricExpireChecker checker(&*client);
    const std::string log = LogOf([&] {
      checker.Start(10);
      for (size_t i = 0; i < series; ++i) {
        EXPECT_TRUE(WaitFor([&] { return items[i]->active_ == (i >= idle); }));
      }
      checker.Exit();  // at the end of a pass
    });
    const std::string count = std::to_string(erased);
    EXPECT_EQ(CountOf("]" + count + " of " + count + " Series Expired in Collecotor: p.m\n", log),
              erased == 0 ? 0u : 1u);
    EXPECT_EQ(client->collector_factory_->total_series_, left);
    EXPECT_EQ(metric->cache_mem_, series * (1 + 112 + 21) - erased * (1 + 21 + 56));

    METRICS::MetricSender* sender = nullptr;
    client->sender_manager_->GetSender(sender, "t1");
    sender->DoPackAndSend();
    EXPECT_EQ(items[0]->Emit({Store(2)}), METRICS::ReturnCode::kOk);
    sender->DoPackAndSend();
    agent.Stop();
    std::vector<double> reported, expected(series - idle, 1);
    if (erased == 0) expected.push_back(2);
    for (const Point& point : agent.Points()) reported.push_back(point.values.at(0));
    EXPECT_EQ(reported, expected);

    EXPECT_EQ(metric->WithTagValues({"0"}) == items[0], erased == 0) << "it starts anew";
    EXPECT_EQ(metric->WithTagValues({"new"}) == METRICS::DummyItem(), left == 8) << "quota";
  }
}

TEST(ExpireTest, StartsOnceAndTakesSeriesThatNeverHadAnEmission) {
  TestClient client(Options());
  client.Metric("m")->WithTags({});
  for (const auto& [seconds, pause] : {std::pair(10, 10), {11, 1}}) {
    MetricExpireChecker checker(&*client);
    checker.Exit(), checker.AtFork();
    EXPECT_EQ(checker.state_.load(), METRICS::MetricState::INIT);
    checker.Start(seconds), checker.Start(3);
    EXPECT_EQ(checker.check_interval_, pause);
    EXPECT_TRUE(WaitFor([&] { return client->collector_factory_->total_series_ == 0; }));
    checker.Exit(), checker.Start(3);
    EXPECT_FALSE(checker.thread_.joinable());
  }
}

TEST(ExpireTest, StartingAndEndingEverythingLeavesNothingBehind) {
  using std::filesystem::directory_iterator;
  const auto files = [] { return std::distance(directory_iterator("/proc/self/fd"), {}); };
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  const long threads_before = ThreadCount(), files_before = files();
  const std::string log = LogOf([&] {
    for (int round = 0; round < 20; ++round) {
      TestClientOptions options = Options(agent.path(), {true, true, false, 1, 1, 1});
      options.log_level.reset();
      TestClient client(options);
      client.Metric("m")->WithTags({})->Emit({Store(1)});
      METRICS::MetricSelfMonitor(&*client).Exit();  // never started, says nothing
      if (round % 4 == 0) client->Exit();
      if (round % 4 == 1) client->FlushAndExit();
      if (round % 4 == 2) client->AtFork();  // in the process that called `Init`
    }
  });
  EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads_before && files() == files_before; }));
  EXPECT_EQ(CountOf("]Self Monitor started\n", log), 20u);
  EXPECT_EQ(CountOf("]Self Monitor stoped.\n", log), 15u);
  EXPECT_EQ(CountOf("]Self Monitor AtFork.\n", log), 5u);
}

}  // namespace
}  // namespace tidegate::test

#include "metrics/metric_expire_checker.h"

#include <array>
#include <ctime>
#include <utility>

#include "metrics/series_items.h"
#include "support/environment.h"
#include "tidegate/testing.h"

namespace tidegate::test {
namespace {

using METRICS::MetricExpireChecker;
using METRICS::Store;

TEST(ExpireTest, HidesIdleSeriesAndErasesThemFromAQuarterOn) {
  using Case = std::array<size_t, 4>;  // all, idle, erased, held: the last ones, which do not count
  for (const auto& test :
       {Case{1, 1, 1}, {3, 1, 1}, {4, 1, 1}, {8, 1, 0}, {8, 1, 1, 1}, {8, 2, 2}, {8, 8, 7, 1}}) {
    SCOPED_TRACE(::testing::PrintToString(test));
    const size_t series = test[0], idle = test[1], erased = test[2], left = series - erased;
    testing::Receiver receiver;
    // Without a checker of its own, so that no pass comes in between.
    TestClient client({{}, kNeverDue, {receiver.SocketPath()}, {false, false, false, 1, 1, 1, 8}});
    METRICS::Metric* const metric = client.Metric("m", {"a"});
    std::vector<std::shared_ptr<METRICS::MetricCollectorItem>> items;
    for (size_t i = 0; i < series; ++i) {
      items.push_back(metric->WithTagValues({std::to_string(i)}));
      items[i]->Emit({Store(1)});
      items[i]->last_update_ -= i < idle ? 7202 : 7000;
      EXPECT_TRUE(i < series - test[3] || items[i]->Hold());
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

    client.Flush(1000);
    EXPECT_EQ(items[0]->Emit({Store(2)}),
              erased == 0 ? METRICS::ReturnCode::kOk : METRICS::ReturnCode::kObjectExit);
    client.Flush(1001);
    std::vector<double> reported, expected(series - idle, 1);
    if (erased == 0) expected.push_back(2);
    for (const auto& point : receiver.Points()) reported.push_back(point.values.at(0));
    EXPECT_EQ(reported, expected);

    EXPECT_EQ(metric->WithTagValues({"0"}) == items[0], erased == 0) << "it starts anew";
    EXPECT_EQ(metric->WithTagValues({"new"}) == METRICS::DummyItem(), left + (erased > 0) == 8)
        << "quota";
  }
}

TEST(ExpireTest, AQuarterIsThatOfAllPiecesOfAListing) {
  constexpr size_t kSeries = 2100;
  for (const auto& [idle, erased] : {std::pair<size_t, size_t>(524, 0), {525, 525}}) {
    TestClient client;
    METRICS::Metric* const metric = client.Metric("m", {"a"});
    std::vector<std::shared_ptr<METRICS::MetricCollectorItem>> items;
    for (size_t i = 0; i < kSeries; ++i) {
      items.push_back(metric->WithTagValues({std::to_string(i)}));
      if (i % 4 == 0 && i / 4 < idle) items[i]->last_update_ = 0;
    }
    MetricExpireChecker checker(&*client);
    checker.Start(10);
    EXPECT_TRUE(WaitFor([&, last = 4 * (idle - 1)] { return !items[last]->active_; }));
    checker.Exit();  // at the end of a pass
    EXPECT_EQ(client->collector_factory_->total_series_, kSeries - erased);
  }
}

TEST(ExpireTest, AnIntervalMakesAPauseOfATenthFromElevenOnAndASeriesIsIdleAfter7200Seconds) {
  TestClient client;
  for (const auto& [seconds, pause] : {std::pair(10, 10), {11, 1}, {600, 60}}) {
    MetricExpireChecker checker(&*client);
    checker.Start(seconds);
    EXPECT_EQ(checker.check_interval_, pause);
  }
  const auto item = client.Metric("m")->WithTags({});
  item->last_update_ = 1000;
  EXPECT_FALSE(CheckExpire(item, 8200));
  EXPECT_TRUE(CheckExpire(item, 8201));
}

TEST(ExpireTest, AnEmissionThatComesBeforeTheTableIsLockedKeepsItsSeries) {
  TestClient client;
  METRICS::Metric& metric = *client.Metric("m", {"a"});
  METRICS::MetricCollectorBase& collector = *metric.impl_->collector_;
  const auto item = metric.WithTagValues({"0"});
  const long now = std::time(nullptr);
  EXPECT_FALSE(CheckExpire(item, now)) << "a pass may come before the first emission";
  item->last_update_ = 0;
  EXPECT_TRUE(CheckExpire(item, now));
  item->Emit({Store(1)});
  EXPECT_FALSE(collector.EraseIdle(*item, now));
  EXPECT_EQ(metric.WithTagValues({"0"}), item);
  EXPECT_TRUE(item->Hold()) << "it takes handles";
  item->last_update_ = 0;
  EXPECT_FALSE(collector.EraseIdle(*item, now)) << "it is held";
  item->LetGo();
  EXPECT_TRUE(collector.EraseIdle(*item, now));
  EXPECT_NE(metric.WithTagValues({"0"}), item);
}

}  // namespace
}  // namespace tidegate::test

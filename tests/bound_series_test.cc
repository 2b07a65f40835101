#include "metrics/bound_series.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "metrics/metric_expire_checker.h"
#include "support/environment.h"

namespace METRICS {
namespace {

using namespace tidegate::test;
using testing::ElementsAre;
using R = ReturnCode;
using T = MetricsType;

struct BoundSeriesTest : testing::Test {
  Metric* Make(const std::string& name, const std::vector<MetricFieldCfg>& fields = {},
               HistoUtilBase* histo = nullptr) {
    Metric* metric = nullptr;
    registry->CreateMetric(metric, MetricInstanceCfg{name, {"k"}, {}, fields, histo});
    return metric;
  }
  BoundSeries Bound(Metric& metric, const MetricFieldValue& like) const {
    BoundSeries series;
    EXPECT_EQ(series.Bind(&metric, tags, like), R::kOk);
    return series;
  }
  std::vector<double> Drain(Metric& metric, const char* name) const {
    return metric.WithTags(tags)->Fields().at(name)->Send(10).values;
  }
  // Lets a whole pass of expiry find the series of `item` idle.
  void Expire(MetricCollectorItem& item) {
    item.last_update_ = ::time(nullptr) - kExpireAfterSeconds - 1;
    MetricExpireChecker expiry(&**client);
    expiry.Start(1);
    EXPECT_TRUE(WaitFor([&] { return !item.active_; }));
    expiry.Exit();
  }

  std::optional<TestClient> client{TestClientOptions{{}, kNeverDue, {}, {false, false}}};
  MetricRegistry* const registry = client->Registry("p", "t1", {}, 10);
  const BoundSeries::Tags tags{{"k", "v"}};
};

TEST_F(BoundSeriesTest, EmitsWhatTheItemWould) {
  HistoUtilBase bounds({0, 10});
  Metric& metric = *Make("m", {}, &bounds);
  Metric& row = *Make("row", {{"hits", T::kCounter}, {"sizes", T::kHistogram, &bounds}});
  BoundSeries rate = Bound(metric, Incr(0));
  BoundSeries timer = Bound(metric, WithSuffix("", Observe(0)));
  const auto item = metric.WithTags(tags);
  EXPECT_TRUE(metric.emit_success_ == 0 && item->last_update_ == 0 && item->Size() == 2);

  item->active_ = false;
  const BoundSeries copy = rate;
  EXPECT_EQ(rate.Emit(7), R::kOk);
  EXPECT_TRUE(item->active_ && ::time(nullptr) - item->last_update_ < 60);
  EXPECT_EQ(BoundSeries(copy).Emit(2.5F), R::kOk);
  EXPECT_EQ(rate.Emit(std::numeric_limits<uint64_t>::max()), R::kOk);
  EXPECT_THAT(Drain(metric, "rate"), ElementsAre((9.5 + 0x1p64) / 10));
  timer.Emit(std::chrono::milliseconds(3));
  timer.Emit(std::chrono::nanoseconds(500));
  EXPECT_THAT(Drain(metric, ""),
              ElementsAre(0.5, 3e3, 1500.25, 3000.5, 2, 3e3, 3e3, 3e3, 3e3, 3e3));
  Bound(metric, Store(0)).Emit(true);
  EXPECT_THAT(Drain(metric, "store"), ElementsAre(1));
  for (const long sample : {-1, 9, 10, 11}) Bound(metric, Stat(0)).Emit(sample);
  EXPECT_THAT(Drain(metric, "histogram"), ElementsAre(1, 2, 30, 3));
  Bound(metric, IncrMeter(0)).Emit(20);
  EXPECT_THAT(Drain(metric, "meter"), ElementsAre(20, 2));
  Bound(metric, WithSuffix("bytes", Add(0))).Emit(-3L);
  EXPECT_THAT(Drain(metric, "bytes"), ElementsAre(-3, -0.3, -3));
  EXPECT_EQ(metric.emit_success_, 12u);

  Bound(row, WithField("hits", IncrCounter(0))).Emit(2);
  Bound(row, WithField("sizes", Stat(0))).Emit(5.5);
  EXPECT_THAT(Drain(row, "hits"), ElementsAre(2));
  EXPECT_THAT(Drain(row, "sizes"), ElementsAre(1, 0, 5.5, 1));
  EXPECT_EQ(row.emit_success_, 2u);
}

TEST_F(BoundSeriesTest, RefusalsLeaveAHandleThatDoesNoHarm) {
  Metric* const metric = Make("m");
  Metric* const row = Make("row", {{"f", T::kGauge}});
  metric->WithTags(tags)->Emit(Incr(1));
  Metric* compatible = nullptr;
  registry->CreateMetric(compatible,
                         {MetricCoItemType::kCoItemCompatible, {"c", {}, {}, {}, nullptr}});
  const struct {
    R code;
    Metric* metric;
    BoundSeries::Tags tags;
    const char* name;
    T type;
  } refusals[] = {
      {R::kNullptr, nullptr, tags, "rate", T::kRate},
      {R::kInvalidMetricType, metric, tags, "rate", T::kGauge},
      {R::kInvalidMetricType, metric, tags, "new", T::kUnknown},
      {R::kInvalidMetricType, metric, tags, "new", T::kMultiField},
      {R::kInvalidString, metric, tags, "a b", T::kRate},
      {R::kInvalidString, metric, {{"k", ""}}, "rate", T::kRate},
      {R::kUnknownTagName, metric, {{"other", "v"}}, "rate", T::kRate},
      {R::kTagNumExceeded, metric, {{"k", "v"}, {"l", "v"}}, "rate", T::kRate},
      {R::kObjectNotExisted, row, tags, "g", T::kGauge},
      {R::kInvalidMetricType, row, tags, "f", T::kRate},
      {R::kNotSupported, compatible, {}, "", T::kGauge},
  };
  BoundSeries series;
  for (const auto& refusal : refusals) {
    ASSERT_EQ(series.Bind(metric, tags, Incr(0)), R::kOk);
    EXPECT_EQ(series.Bind(refusal.metric, refusal.tags, refusal.name, refusal.type), refusal.code);
    EXPECT_TRUE(!series && series.Emit(1) == R::kNotSupported);
  }
  registry->Block();
  EXPECT_EQ(series.Bind(metric, tags, Incr(0)), R::kObjectBlocked);
  registry->UnBlock();
  EXPECT_EQ(metric->WithTags(tags)->Size(), 0u) << "nothing was emitted by a refused handle";
}

TEST_F(BoundSeriesTest, ExpiryHidesABoundSeriesAndErasesItBehindTheLastHandle) {
  Metric& metric = *Make("m");
  BoundSeries series = Bound(metric, Incr(0));
  const auto item = metric.WithTags(tags);
  Expire(*item);
  EXPECT_EQ(metric.impl_->GetSeriesCount(), 1u);
  series.Emit(1);
  EXPECT_TRUE(item->active_ && metric.WithTags(tags) == item);
  BoundSeries copy = series;
  series = Bound(metric, Store(0));
  series = BoundSeries();
  Expire(*item);
  EXPECT_EQ(metric.impl_->GetSeriesCount(), 1u);
  copy.Emit(1);
  copy = BoundSeries();
  Expire(*item);
  EXPECT_EQ(metric.impl_->GetSeriesCount(), 0u);
  EXPECT_FALSE(item->Hold()) << "an erased item takes no handle";
  EXPECT_EQ(Bound(metric, Incr(0)).Emit(1), R::kOk);
}

TEST_F(BoundSeriesTest, TreesThatEraseNothingTakeHandlesBehindAnExpiry) {
  (*client)->collector_factory_->collector_kind_ = 1;
  Metric& metric = *Make("trees");
  Expire(*metric.WithTags(tags));
  EXPECT_EQ(Bound(metric, Incr(0)).Emit(1), R::kOk);
}

TEST_F(BoundSeriesTest, HandlesOutliveTheirMetricAndTheClient) {
  Metric* const metric = Make("removed");
  BoundSeries removed = Bound(*metric, Observe(0));
  BoundSeries ended = Bound(*Make("ended"), Observe(0));
  registry->RemoveMetric("removed");
  EXPECT_EQ(removed.Emit(1), R::kOk);
  EXPECT_EQ(BoundSeries().Bind(metric, tags, Observe(0)), R::kObjectExit);
  BoundSeries moved = std::move(removed);
  EXPECT_EQ(removed.Emit(1), R::kNotSupported);  // NOLINT(bugprone-use-after-move): that is asked
  removed = std::move(moved);
  client.reset();
  EXPECT_EQ(removed.Emit(1), R::kOk);
  EXPECT_EQ(ended.Emit(1), R::kOk);
}

TEST_F(BoundSeriesTest, CountsAddUpOverThreadsThatComeAndGo) {
  constexpr unsigned long kThreads = 40, kRounds = 5, kEach = 200;
  Metric& metric = *Make("m");
  BoundSeries series = Bound(metric, IncrCounter(0));
  unsigned long taken = 0;
  for (unsigned long round = 0; round < kRounds; ++round) {
    std::vector<std::thread> threads;  // more than there are slots
    for (unsigned long i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        for (unsigned long n = 0; n < kEach; ++n) series.Emit(1);
      });
    }
    taken += GetStatValue(metric.emit_success_);
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(taken + metric.emit_success_, kThreads * kRounds * kEach);
  EXPECT_THAT(Drain(metric, "counter"), ElementsAre(kThreads * kRounds * kEach));
}

}  // namespace
}  // namespace METRICS

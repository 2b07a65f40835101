#include "metrics/bound_series.h"

#include <ctime>
#include <limits>

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
  EXPECT_TRUE(metric.emit_success_ == 0 && item->Size() == 2);
  item->last_update_ = 0;

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
  Metric* const row = Make("row", {{"f", T::kGauge}, {"h", T::kHistogram}});
  const BoundSeries::Tags other{{"k", "other"}};
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
      {R::kInvalidMetricType, metric, tags, "new", T::kMultiField},
      {R::kInvalidString, metric, tags, "a b", T::kRate},
      {R::kInvalidString, metric, {{"k", ""}}, "rate", T::kRate},
      {R::kUnknownTagName, metric, {{"other", "v"}}, "rate", T::kRate},
      {R::kTagNumExceeded, metric, {{"k", "v"}, {"l", "v"}}, "rate", T::kRate},
      {R::kInvalidString, metric, other, "a b", T::kRate},
      {R::kMaxHistoBucket, metric, other, "h", T::kHistogram},
      {R::kObjectNotExisted, row, tags, "g", T::kGauge},
      {R::kInvalidMetricType, row, tags, "f", T::kRate},
      {R::kMaxHistoBucket, row, tags, "h", T::kHistogram},
      {R::kNotSupported, compatible, {}, "", T::kGauge},
  };
  BoundSeries series;
  for (const auto& refusal : refusals) {
    ASSERT_EQ(series.Bind(metric, tags, Incr(0)), R::kOk);
    EXPECT_EQ(series.Bind(refusal.metric, refusal.tags, refusal.name, refusal.type), refusal.code);
    EXPECT_TRUE(!series && series.Emit(1) == R::kNotSupported);
  }
  EXPECT_EQ(metric->impl_->GetSeriesCount() + row->impl_->GetSeriesCount(), 1u) << "nothing made";
  EXPECT_EQ(metric->WithTags(tags)->Size(), 1u);
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
  (*client)->collector_factory_->collector_kind_ = 1;  // trees, which erase nothing
  Metric& trees = *Make("trees");
  Expire(*trees.WithTags(tags));
  EXPECT_EQ(Bound(trees, Incr(0)).Emit(1), R::kOk);
}

TEST_F(BoundSeriesTest, HandlesOutliveTheirMetricAndTheClient) {
  Metric* const metric = Make("removed");
  BoundSeries removed = Bound(*metric, Observe(0));
  BoundSeries ended = Bound(*Make("ended"), Observe(0));
  registry->RemoveMetric("removed");
  EXPECT_EQ(removed.Emit(1), R::kObjectExit);
  EXPECT_EQ(BoundSeries().Bind(metric, tags, Observe(0)), R::kObjectExit);
  BoundSeries moved = std::move(removed);
  EXPECT_EQ(removed.Emit(1), R::kNotSupported);  // NOLINT(bugprone-use-after-move): that is asked
  removed = std::move(moved);
  client.reset();
  EXPECT_EQ(removed.Emit(1), R::kObjectExit);
  EXPECT_EQ(ended.Emit(1), R::kObjectExit);
}

TEST_F(BoundSeriesTest, WhatIsEmittedOnADroppedSeriesIsRefusedAndCounted) {
  for (const uint32_t kind : {0U, 1U}) {
    (*client)->collector_factory_->collector_kind_ = kind;
    const std::string name = "m" + std::to_string(kind);
    Metric& metric = *Make(name);
    Metric& row = *Make(name + ".row", {{"f", T::kTimer}});
    const auto item = metric.WithTags(tags);
    const auto fields = row.WithTags(tags);
    BoundSeries timer = Bound(metric, Observe(0));
    BoundSeries copy = timer;
    const auto emit_all = [&](R code) {
      EXPECT_EQ(item->Emit({Observe(1)}), code);
      EXPECT_EQ(item->Emit({Observe(1), Incr(1)}), code);
      EXPECT_EQ(fields->Emit({WithField("f", Observe(1))}), code);
      EXPECT_EQ(fields->Emit({WithField("f", Observe(1)), WithField("f", Observe(1))}),
                code == R::kOk ? R::kInvalidParamNumber : code);
      EXPECT_EQ(fields->EmitMap({{"f", 1}}), code);
    };
    emit_all(R::kOk);
    EXPECT_EQ(timer.Emit(1), R::kOk);
    const auto emitted = [&] { return metric.emit_success_ + row.emit_success_; };
    const auto failed = [&] { return metric.emit_fail_ + row.emit_fail_; };
    const unsigned long before = emitted();
    const unsigned long failed_before = failed();

    registry->Block();
    emit_all(R::kObjectBlocked);
    EXPECT_EQ(timer.Emit(1), R::kObjectBlocked);
    EXPECT_EQ(copy.Emit(1.5), R::kObjectBlocked);
    item->Refresh();
    EXPECT_FALSE(item->active_) << "it stays out of flushes";
    registry->UnBlock();
    emit_all(R::kObjectExit);
    EXPECT_EQ(emitted(), before);
    EXPECT_EQ(failed() - failed_before, 12u);
    EXPECT_EQ(item->Fields().at("timer")->Send(1).values.at(4), 3) << "nothing more was kept";

    EXPECT_EQ(metric.impl_->GetSeriesCount(), 0u);
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(timer.Emit(1), R::kOk) << "bound anew";
      EXPECT_EQ(copy.Emit(1), R::kOk);
      EXPECT_EQ(Drain(metric, "timer").at(4), 2);
      EXPECT_TRUE(metric.WithTags(tags)->IsHeld());
      registry->Block();
      registry->UnBlock();
    }
    EXPECT_EQ(emitted(), before + 4);
    // The reason why it cannot bind anew is answered, and counted once.
    metric.WithTags(tags)->Emit(WithSuffix("timer", Incr(1)));
    EXPECT_EQ(timer.Emit(1), R::kInvalidMetricType);
    EXPECT_EQ(failed() - failed_before, 13u);
    registry->RemoveMetric(name);
    EXPECT_EQ(timer.Emit(1), R::kObjectExit);
  }
}

TEST_F(BoundSeriesTest, HandlesOfManyThreadsFollowBlocksAndLoseNothingThatWasAccepted) {
  Metric& metric = *Make("m");
  BoundSeries series = Bound(metric, IncrCounter(0));
  std::atomic<unsigned long> accepted{0}, refused{0};
  Workers emitters;
  emitters.Start(3, [&](int) {
    for (int i = 0; i < 100; ++i) ++(series.Emit(1) == R::kOk ? accepted : refused);
  });
  for (int round = 0; round < 50; ++round) {
    registry->Block();
    EXPECT_TRUE(WaitFor([&, seen = refused.load()] { return refused > seen; }));
    registry->UnBlock();
    EXPECT_TRUE(WaitFor([&, seen = accepted.load()] { return accepted > seen; }));
  }
  emitters.Stop();
  EXPECT_EQ(metric.emit_success_, accepted);
  EXPECT_EQ(metric.emit_fail_, refused);
  registry->Block();
  registry->UnBlock();
  EXPECT_EQ(series.Emit(7), R::kOk);
  EXPECT_THAT(Drain(metric, "counter"), ElementsAre(7));
  EXPECT_EQ(metric.impl_->GetSeriesCount(), 1u);
}

}  // namespace
}  // namespace METRICS

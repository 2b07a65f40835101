#include "metrics/metric.h"

#include "metrics/metric_collector.h"
#include "metrics/metric_registry.h"
#include "support/environment.h"

namespace METRICS {
namespace {

using R = ReturnCode;

class MetricTest : public testing::Test {
 protected:
  static double Drain(MetricCollectorItem& item, const std::string& suffix) {
    return item.Fields().at(suffix)->Send(1).values.at(0);
  }

  tidegate::test::TestClient client_;
  Metric& metric_ = *client_.Metric("m", {"b", "a"});
};

TEST_F(MetricTest, AllFormsOfTagsLeadToTheSameSeries) {
  const auto full = metric_.WithTags({{"a", "2"}, {"b", "1"}});
  EXPECT_EQ(metric_.impl_->collector_->GetAll().at(0).first, (std::vector<std::string>{"2", "1"}));
  EXPECT_EQ(metric_.WithTags({{"b", "1"}, {"a", "2"}}), full);
  EXPECT_EQ(metric_.WithTagValues({"2", "1"}), full);
  EXPECT_EQ(metric_.WithTagMap({{"b", "1"}, {"a", "2"}, {"undeclared", "bad|value"}}), full);
  const auto none = metric_.WithTags({});
  EXPECT_EQ(metric_.WithTagMap({}), none);
  EXPECT_EQ(metric_.WithTagValues({"-"}), none);
  const auto twice = metric_.WithTags({{"a", "0"}, {"a", "2"}});
  EXPECT_EQ(twice, metric_.WithTagValues({"2"}));
  EXPECT_EQ(metric_.WithTags({{"a", "2"}}), twice);
  EXPECT_EQ(metric_.WithTags({{"a", "a|b"}, {"a", "2"}}), DummyItem()) << "each value is validated";
  EXPECT_NE(metric_.WithTagValues({"bad|value"}), DummyItem()) << "not validated";
  EXPECT_EQ(metric_.impl_->GetSeriesCount(), 4u);
}

TEST_F(MetricTest, EveryFailureGivesTheDummyItemAndACount) {
  using Tags = std::vector<tidegate::MetricTag>;
  for (const Tags& tags : {Tags{{"b", "a|b"}}, {{}, {}, {}}}) {
    EXPECT_EQ(metric_.WithTags(tags), DummyItem());
  }
  EXPECT_EQ(metric_.WithTagValues({"", "", ""}), DummyItem());
  metric_.impl_->state_ = MetricState::INIT;
  EXPECT_EQ(metric_.WithTagValues({}), DummyItem());
  EXPECT_EQ(metric_.WithTagMap({}), DummyItem());
  EXPECT_EQ(metric_.emit_fail_, 5u);
  double number = 1.0;
  EXPECT_EQ(DummyItem()->Emit(number), R::kNotSupported);
  EXPECT_EQ(DummyItem()->EmitMap({{"f", 1.0}}), R::kNotSupported);
}

TEST_F(MetricTest, ASuffixKeepsItsFirstTypeAndABadOneStopsTheEmission) {
  MetricCollectorItem& item = *metric_.WithTags({});
  item.Emit({WithSuffix("x", Incr(5)), WithSuffix("x", Store(7)), WithSuffix("", IncrCounter(2)),
             WithSuffix("", IncrCounter(.5))});
  EXPECT_EQ(Drain(item, "x"), 5.0);
  EXPECT_EQ(Drain(item, ""), 2.5);
  EXPECT_EQ(metric_.emit_success_, 4u);
  item.last_update_ = 0;
  EXPECT_EQ(item.Emit({WithSuffix("x", Incr(1)), WithSuffix("a b"), Add(1)}), R::kInvalidString);
  EXPECT_EQ(Drain(item, "x"), 1.0);
  EXPECT_EQ(item.Size(), 2u);
  EXPECT_EQ(item.MemSize(), 1u + 2 * 16u);
  EXPECT_TRUE(item.last_update_ == 0 && metric_.emit_success_ == 4 && metric_.emit_fail_ == 1);
  item.active_ = false;
  EXPECT_EQ(item.Emit(std::vector<MetricFieldValue>()), R::kOk);
  EXPECT_TRUE(item.active_ && item.last_update_ > 0) << "even an empty one refreshes the series";
}

TEST_F(MetricTest, TheLastDestructorsOfAThreadMayEmitOnSeriesThatAreNew) {
  struct Last {
    ~Last() {
      for (const std::string& value : {std::string(99, 'x'), std::string(99, 'y')}) {
        metric->WithTags({{"b", value}})->Emit({Incr(1)});
      }
    }
    Metric* metric = nullptr;
  };
  std::thread([this] {
    thread_local Last last;  // made before everything that the library keeps for the thread
    last.metric = &metric_;
    metric_.WithTags({{"b", std::string(99, 'w')}})->Emit({Incr(1)});
  }).join();
  EXPECT_EQ(metric_.impl_->GetSeriesCount(), 3u);
  EXPECT_EQ(metric_.emit_success_, 3u);
}

TEST_F(MetricTest, ThreadsRacingOnNewSuffixesMakeOneCellEachAndLoseNothing) {
  constexpr int kRounds = 2000;
  const auto item = metric_.WithTags({});
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&item] {
      for (int i = 0; i < kRounds; ++i) item->Emit({WithSuffix(std::to_string(i), Incr(i))});
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(metric_.cache_series_, kRounds + 0u);
  EXPECT_EQ(metric_.emit_success_, 4u * kRounds);
  for (int i = 0; i < kRounds; ++i) ASSERT_EQ(Drain(*item, std::to_string(i)), 4.0 * i);
}

}  // namespace
}  // namespace METRICS

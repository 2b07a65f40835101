#include "metrics/metric_registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "metrics/global_resources_limit.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_factory.h"
#include "support/environment.h"

namespace METRICS {
namespace {

using R = ReturnCode;
using T = MetricsType;
using Tags = std::vector<tidegate::MetricTag>;
using Fields = std::vector<MetricFieldCfg>;
using Strings = std::vector<std::string>;

MetricInstanceCfg Cfg(std::string name, Strings tag_names = {}, Tags const_tags = {},
                      HistoUtilBase* histo = nullptr, Fields fields = {}) {
  return {std::move(name), std::move(tag_names), std::move(const_tags), std::move(fields), histo};
}

class RegistryTest : public testing::Test {
 protected:
  static tidegate::test::TestClientOptions Options() {
    tidegate::test::TestClientOptions options;
    options.vendor.immutable_tags = {{"y", "immutable"}, {"ig", "immutable"}};
    options.vendor.rewritable_tags = {{"r", "rewritable"}, {"gr", "rewritable"}};
    return options;
  }
  R Create(const MetricInstanceCfg& cfg) { return registry_.CreateMetric(metric_, cfg); }

  tidegate::test::TestClient client_{Options()};
  MetricCollectorFactory& collectors_ = *client_->collector_factory_;
  MetricRegistry& registry_ =
      *client_.Registry("p", "t1", {{"ig", "global"}, {"gr", "global"}, {"g", "global"}});
  Metric* metric_ = nullptr;
};

TEST_F(RegistryTest, ImmutableTagsGoBeforeGlobalOnesAndThoseBeforeRewritableOnes) {
  std::string tags;
  for (const auto& [key, value] : registry_.InsertedTags()) tags += key + "=" + value + " ";
  EXPECT_EQ(tags, "g=global gr=global ig=immutable r=rewritable y=immutable ");
}

TEST_F(RegistryTest, OfTwoErrorsTheEarlierCheckAnswers) {
  ASSERT_EQ(Create(Cfg("old")), R::kOk);
  HistoUtilBase bad(std::vector<double>(101));
  Strings most;
  for (int i = 0; i < 255; ++i) most.push_back("t" + std::to_string(i));
  const struct {
    MetricInstanceCfg cfg;
    R code;
  } cases[] = {{Cfg("", Strings(256)), R::kInvalidString},
               {Cfg("m", Strings(256)), R::kMaxTagPair},
               {Cfg("m", {"a b", "a b"}, {}, &bad), R::kDuplicatedTagName},
               {Cfg("m", {"g", ""}), R::kTagConflict},
               {Cfg("m", {"", "g"}), R::kInvalidString},
               {Cfg("m", {"y"}, {{"k", ""}}), R::kTagConflict},
               {Cfg("m", {"a"}, {{"k", ""}, {"a", "v"}}), R::kInvalidString},
               {Cfg("m", {"a"}, {{"a b", "v"}}), R::kInvalidString},
               {Cfg("m", {"a"}, {{"a", "v"}, {"", ""}}), R::kTagConflict},
               {Cfg("m", {}, {{"r", "v"}, {"r", "v"}}), R::kTagConflict},
               {Cfg("m", {}, {{"k", "v"}, {"k", "w"}}, &bad), R::kDuplicatedTagName},
               {Cfg("m", {}, {}, &bad, {{"", T::kGauge}}), R::kMaxHistoBucket},
               {Cfg("m", {}, {}, nullptr, {{"", T::kMultiField, &bad}}), R::kInvalidString},
               {Cfg("m", {}, {}, nullptr, {{"f", T::kTimer, &bad}}), R::kMaxHistoBucket},
               {Cfg("m", {}, {}, nullptr, Fields(103, {"f", T::kTimer})), R::kFieldNumExceeded},
               // 65540 columns count as 4
               {Cfg("old", {}, {}, nullptr, Fields(6554, {"f", T::kTimer})), R::kObjectExisted},
               {Cfg("old", {}, {}, nullptr, {{"f", T::kMultiField}}), R::kInvalidMetricType},
               {Cfg("m", most), R::kOk}};
  for (const auto& [cfg, code] : cases) {
    SCOPED_TRACE(&cfg - &cases[0].cfg);
    registry_.GetMetric(metric_, "old");
    EXPECT_EQ(Create(cfg), code);
    EXPECT_EQ(metric_ != nullptr, code == R::kOk);
  }
  EXPECT_EQ(registry_.GetAllMetric().size(), 2u);
  EXPECT_EQ(registry_.CreateMetric(metric_, {MetricCoItemType::kCoItemUnknown, Cfg("n")}),
            R::kInternalError);
}

TEST(RegistryDeathTest, TheEnvironmentLimitsMetricsByItsLow32BitsOrTheFirstCallDoes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the variable is read once per process
  using Case = std::tuple<const char*, unsigned long, int>;  // variable, call, limit
  for (const auto& [text, call, limit] :
       {Case("4294967299", 0, 3), {"many", 0, 1024}, {"4294967299", 5, 5}}) {
    EXPECT_EXIT(
        {
          setenv("METRICS_MAX_METRICS_PER_REGISTRY", text, 1);
          tidegate::test::TestClient client;
          setenv("METRICS_MAX_METRICS_PER_REGISTRY", "1", 1);
          for (const unsigned long max : {call, 7UL}) {
            if (call != 0) SetGlobalResourcesLimit({max});
          }
          MetricRegistry& registry = *client.Registry("p");
          Metric* metric = nullptr;
          int made = 0;
          while (registry.CreateMetric(metric, Cfg(std::to_string(made))) == R::kOk) ++made;
          std::_Exit(made == limit ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
  }
}

TEST_F(RegistryTest, MetricsAreFoundUntilRemovedAndCanBeMadeAgain) {
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(registry_.RemoveMetric("m"), R::kObjectNotExisted);
    EXPECT_EQ(registry_.GetMetric(metric_, "m"), R::kObjectNotExisted);
    ASSERT_EQ(Create(Cfg("m")), R::kOk);
    EXPECT_EQ(registry_.GetMetric(metric_, "m"), R::kOk);
    metric_->WithTags({});
    EXPECT_THAT(collectors_.GetAll(), testing::ElementsAre(metric_->impl_->collector_));
    const std::shared_ptr<Metric> held = registry_.GetAllMetric().at(0);
    EXPECT_THAT(tidegate::test::LogOf([this] { registry_.RemoveMetric("m"); }, 2),
                testing::EndsWith("]Metric Remove: tenant[t1] p.m\n"));
    EXPECT_TRUE(collectors_.GetAll().empty()) << "at once, though the metric is still held";
    EXPECT_EQ(collectors_.total_series_, 0u);
  }
}

TEST_F(RegistryTest, BlockingDropsSeriesAndKeepsMetricsAndUnblockingRevivesAnything) {
  ASSERT_EQ(Create(Cfg("m")), R::kOk);
  const auto item = metric_->WithTags({});
  registry_.Block();
  EXPECT_EQ(metric_->impl_->GetSeriesCount(), 0u);
  EXPECT_EQ(metric_->WithTags({}), DummyItem());
  registry_.UnBlock();
  EXPECT_TRUE(metric_->WithTags({}) != item && metric_->WithTags({}) != DummyItem());
  const std::shared_ptr<MetricRegistry> held = client_->metric_factory_->GetAllRegistry().at(0);
  client_->metric_factory_->RemoveRegistry("p", "t1");
  EXPECT_TRUE(held->state_ == MetricState::SHUTDOWN && held->GetAllMetricNames().empty());
  held->UnBlock();
  EXPECT_EQ(held->state_.load(), MetricState::READY);
}

}  // namespace
}  // namespace METRICS

#include "metrics/metric_registry.h"

#include <cstdlib>
#include <future>
#include <tuple>

#include "metrics/bound_series.h"
#include "metrics/global_resources_limit.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_factory.h"
#include "support/environment.h"
#include "support/list_sender.h"

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
    options.vendor.tags = {{"y", "immutable"}, {"ig", "immutable"}};
    options.vendor.default_tags = {{"r", "rewritable"}, {"gr", "rewritable"}};
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
               {Cfg("m", {"y"}, {{"k", ""}}), R::kTagConflict},
               {Cfg("m", {"a"}, {{"a", "v"}, {"", ""}}), R::kTagConflict},
               {Cfg("m", {}, {{"r", "v"}, {"r", "v"}}), R::kTagConflict},
               {Cfg("m", {}, {{"k", "v"}, {"k", "w"}}, &bad), R::kDuplicatedTagName},
               {Cfg("m", {}, {}, &bad, {{"", T::kGauge}}), R::kMaxHistoBucket},
               {Cfg("m", {}, {}, nullptr, {{"", T::kMultiField, &bad}}), R::kInvalidString},
               {Cfg("m", {}, {}, nullptr, Fields(1025, {"f", T::kGauge})), R::kFieldNumExceeded},
               {Cfg("old", {}, {}, nullptr, Fields(1024, {"f", T::kGauge})), R::kObjectExisted},
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
    ASSERT_EQ(Create(Cfg("m")), R::kOk);
    EXPECT_EQ(registry_.GetMetric(metric_, "m"), R::kOk);
    metric_->WithTags({});
    EXPECT_THAT(collectors_.GetAll(), testing::ElementsAre(metric_->impl_->collector_));
    const std::shared_ptr<Metric> held = registry_.GetAllMetric().at(0);
    EXPECT_THAT(tidegate::test::LogOf([this] { registry_.RemoveMetric("m"); }, 2),
                testing::HasSubstr("]Metric Remove: tenant[t1] p.m\n"));
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

// How a metric, or its series, can end.
struct End {
  const char* name;
  std::function<void(MetricClient&, MetricRegistry&, const std::string& metric)> run;
};
const End kEnds[] = {
    {"RemoveMetric", [](auto&, auto& registry, auto& metric) { registry.RemoveMetric(metric); }},
    {"RemoveRegistry",
     [](auto& client, auto& registry, auto&) { client.RemoveRegistry(registry.Prefix(), "t1"); }},
    {"Clear", [](auto&, auto& registry, auto&) { registry.Clear(); }},
    {"Block", [](auto& client, auto& registry, auto&) { client.Block(registry.Prefix(), "t1"); }},
};

// Two metrics with the full name a.b.c.
class NamesakesTest : public testing::Test {
 protected:
  struct Namesake {
    MetricRegistry* registry;
    std::string name;
    Metric* metric;
  };

  Namesake Make(const std::string& prefix, const std::string& name, Strings tag_names) {
    Namesake made{client_.Registry(prefix), name, nullptr};
    EXPECT_EQ(made.registry->CreateMetric(made.metric, name, std::move(tag_names), nullptr),
              R::kOk);
    return made;
  }
  bool Emit(Metric* metric, int number) {
    const R code = metric->WithTags({{"x", "1"}})->Emit({Incr(number)});
    if (code == R::kOk) accepted_ += number;
    return code == R::kOk;
  }
  // Flushes, and returns all values that were reported under the name so far.
  double Reported() {
    for (const auto& packet :
         sent_.Flush(client_->collector_factory_->GetTenantSendCollector("t1", 1, 0))) {
      for (const auto& block : packet.blocks) {
        for (const auto& series : block.series) {
          if (block.name == "a.b.c.rate") reported_ += series.values.at(0);
        }
      }
    }
    return reported_;
  }

  tidegate::test::TestClient client_;
  tidegate::test::PacketList sent_;
  std::atomic<int> accepted_{0};
  double reported_ = 0;
};

TEST_F(NamesakesTest, OfTwoWithEqualTagsTheOneThatIsLeftLosesNothing) {
  Metric* stat = nullptr;
  client_.Registry("stat")->CreateMetric(stat, Cfg("s", {"metric_name"}, {}, nullptr,
                                                   {{"emit.success", T::kRate},
                                                    {"emit.fail", T::kRate},
                                                    {"cache.series", T::kGauge},
                                                    {"cache.mem", T::kGauge}}));
  for (const End& end : kEnds) {
    for (const bool first_ends : {true, false}) {
      SCOPED_TRACE(testing::Message() << end.name << " of the first: " << first_ends);
      Namesake ended = Make("a.b", "c", {"x"}), left;
      const std::string log = tidegate::test::LogOf([&] { left = Make("a", "b.c", {"x"}); }, 2);
      EXPECT_THAT(log,
                  testing::HasSubstr("Metric tenant[t1] [a][b.c] has the full name of [a.b][c]: "
                                     "they share their series\n"));
      if (!first_ends) std::swap(ended, left);
      EXPECT_TRUE(Emit(ended.metric, 1) && Emit(left.metric, 10));
      left.metric->EmitStat(stat);
      BoundSeries bound;
      EXPECT_EQ(bound.Bind(left.metric, {{"x", "2"}}, Incr(0)), R::kOk);
      const auto held = left.metric->WithTags({{"x", "1"}});
      {
        tidegate::test::Workers others;
        others.Start(2, [&](int) { Emit(left.metric, 100); });
        Reported();
        end.run(*client_, *ended.registry, ended.name);
        Reported();
      }
      EXPECT_TRUE(Emit(left.metric, 1000));
      EXPECT_EQ(left.metric->WithTags({{"x", "1"}}), held) << "the series goes on";
      EXPECT_EQ(Reported(), accepted_);
      const CellPtr success =
          stat->WithTags({{"metric_name", "a.b.c"}})->Fields().at("emit.success");
      success->Send(1);
      left.metric->EmitStat(stat);
      EXPECT_GE(success->Send(1).values.at(0), 1) << "and is still counted";
      left.registry->Block();
      EXPECT_EQ(bound.Emit(1), R::kObjectBlocked);
      left.registry->UnBlock();
      EXPECT_EQ(bound.Emit(1), R::kOk) << "it follows the metric that it was bound with";
      left.registry->RemoveMetric(left.name);
      client_->UnBlock("a.b", "t1");
      client_->UnBlock("a", "t1");
      ended.registry = client_.Registry(ended.name == "c" ? "a.b" : "a");
      ended.registry->RemoveMetric(ended.name);
      EXPECT_EQ(client_->collector_factory_->GetAll().size(), 1u) << "that of the statistics";
      EXPECT_EQ(client_->collector_factory_->total_series_, 1u);
      client_->RemoveRegistry(ended.registry->Prefix(), "t1");
    }
  }
}

TEST_F(NamesakesTest, OneWithOtherTagsIsRefusedUntilTheFirstHasGone) {
  for (const uint32_t kind : {0u, 1u}) {
    client_->collector_factory_->collector_kind_ = kind;
    const Namesake first = Make("a.b", "c", {"x"});
    Namesake second;
    const auto make = [&] { second = Make("a", "b.c", Strings{"x", "y"}); };
    EXPECT_THAT(tidegate::test::LogOf(make, 2),
                testing::HasSubstr("Metric tenant[t1] [a][b.c] has the full name of [a.b][c]: "
                                   "its emissions are refused\n"));
    const std::string refused = tidegate::test::LogOf(
        [&] {
          for (int i = 0; i < 3; ++i) EXPECT_FALSE(Emit(second.metric, 1));
          EXPECT_EQ(second.metric->WithTagValues({"1", "2"}), DummyItem());
          EXPECT_EQ(second.metric->WithTagMap({}), DummyItem());
          BoundSeries bound;
          EXPECT_EQ(bound.Bind(second.metric, {}, Incr(0)), R::kNotSupported);
        },
        2);
    EXPECT_EQ(
        tidegate::test::CountOf("[a][b.c]: refused, another metric has its full name\n", refused),
        1u)
        << refused;
    EXPECT_EQ(second.metric->emit_fail_, 6u);
    EXPECT_TRUE(Emit(first.metric, 10));
    Emit(client_.Metric("unrelated", {"x"}, "a.b"), 0);
    EXPECT_EQ(Reported(), accepted_);
    first.registry->RemoveMetric("c");
    EXPECT_TRUE(Emit(second.metric, 100));
    EXPECT_EQ(Reported(), accepted_);
    second.registry->RemoveMetric("b.c");
  }
}

// A collector whose series, as they die, do `at_death`; once.
class WatchedCollector final : public MetricCollectorBase {
 public:
  using MetricCollectorBase::MetricCollectorBase;
  TakenEntries TakeAll() override {
    return {this, [](void* self) {
              auto& look = static_cast<WatchedCollector*>(self)->at_death;
              if (look) std::exchange(look, nullptr)();
            }};
  }
  std::function<void()> at_death;
};

TEST(RemovalTest, SeriesDieWithoutTheLocksOfTheTables) {
  for (const End& end : kEnds) {
    SCOPED_TRACE(end.name);
    tidegate::test::TestClient client;
    Metric* const metric = client.Metric("m");
    MetricRegistry& registry = *client.Registry("p");
    bool free = false;
    std::future<void> other;
    const auto collector =
        std::make_shared<WatchedCollector>(client->collector_factory_.get(), metric);
    metric->impl_->collector_ = collector;
    collector->at_death = [&] {
      other = std::async(std::launch::async, [&] {
        client->metric_factory_->GetAllRegistryNames();
        registry.GetAllMetricNames();
      });
      free = other.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    };
    end.run(*client, registry, "m");
    EXPECT_TRUE(free);
  }
}

}  // namespace
}  // namespace METRICS

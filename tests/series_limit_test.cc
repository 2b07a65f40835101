// A metric with a limit of its own: what is beyond it goes to the overflow series, and nothing is
// lost or made twice.

#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "metrics/bound_series.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_expire_checker.h"
#include "metrics/metric_registry.h"
#include "support/environment.h"
#include "tidegate/tag_view.h"
#include "util/distinct_count.h"
#include "util/word_hash.h"

namespace METRICS {
namespace {

using namespace tidegate::test;
using Kind = MetricCoItemType;
using Strings = std::vector<std::string>;

constexpr uint64_t kLimit = 3;

// A client with one collector kind, and metrics `m` of a form with the tags a and b.
struct Bench {
  explicit Bench(uint32_t collectors = 0, uint64_t quota = 1000)
      : client({{}, kNeverDue, {}, {false, false, false, 15000, 60, 600000, quota}}) {
    client->collector_factory_->collector_kind_ = collectors;
  }
  Metric& Make(Kind kind, uint64_t limit = kLimit) {
    MetricInstanceCfg cfg;
    cfg.name = "m";
    cfg.max_series = limit;
    if (kind != Kind::kCoItemCompatible) cfg.tag_names = {"b", "a"};
    if (kind == Kind::kCoItemField) cfg.fields = {{"rate", MetricsType::kRate}};
    client.Registry("p")->CreateMetric(metric, {kind, cfg});
    metric->SetCompatibleType(MetricsType::kRate);
    return *metric;
  }
  unsigned long Total() { return client->collector_factory_->total_series_; }
  // What was emitted on each series since the last call.
  std::map<Strings, double> Drain() {
    std::map<Strings, double> sums;
    for (const auto& [values, item] : metric->impl_->collector_->GetAll()) {
      CellPtr cell = item->Data();
      if (metric->kind_ != Kind::kCoItemCompatible) cell = item->Fields().at("rate");
      const SendRes sent = cell->Send(1);
      sums[values] = sent.values.empty() ? 0 : sent.values[0];
    }
    return sums;
  }
  TestClient client;
  Metric* metric = nullptr;
};

using Emitter = void (*)(Metric&, const std::string& a);

const std::vector<std::pair<const char*, Emitter>> kDeclared{
    {"WithTags",
     [](Metric& m, const std::string& a) {
       m.WithTags({{"a", a}, {"b", "x"}})->Emit({Incr(1)});
     }},
    {"a list",
     [](Metric& m, const std::string& a) {
       m.WithTags(std::vector<tidegate::MetricTag>{{"b", "x"}, {"a", a}})->Emit(Incr(1));
     }},
    {"WithTagValues",
     [](Metric& m, const std::string& a) {
       m.WithTagValues({a, "x"})->Emit(Incr(1));
     }},
    {"fewer values", [](Metric& m, const std::string& a) { m.WithTagValues({a})->Emit(Incr(1)); }},
    {"WithTagMap",
     [](Metric& m, const std::string& a) {
       m.WithTagMap({{"a", a}})->Emit(Incr(1));
     }},
    {"Emit",
     [](Metric& m, const std::string& a) {
       m.Emit({{"a", a}, {"b", "x"}}, Incr(1));
     }},
    {"Bind",
     [](Metric& m, const std::string& a) {
       BoundSeries series;
       ASSERT_EQ(series.Bind(&m, {{"a", a}}, Incr(0)), ReturnCode::kOk);
       series.Emit(1);
     }},
};

class CollectorLimitTest : public testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(Kinds, CollectorLimitTest, testing::Values(0U, 1U));

TEST_P(CollectorLimitTest, EachWayLeadsToOneOverflowSeriesBeyondTheLimit) {
  std::vector<std::tuple<Kind, const char*, Emitter, Strings>> ways;
  for (const auto& [name, emit] : kDeclared) {
    ways.emplace_back(Kind::kCoItemSuffix, name, emit, Strings{"other", "other"});
    ways.emplace_back(Kind::kCoItemField, name, emit, Strings{"other", "other"});
  }
  ways.emplace_back(
      Kind::kCoItemCompatible, "CEmit",
      [](Metric& m, const std::string& a) {
        m.CEmit(1, {"b", "x", "a", a});
      },
      Strings{"b", "other", "a", "other"});
  for (const auto& [kind, name, emit, other] : ways) {
    SCOPED_TRACE(name + std::string(" of form ") + std::to_string(static_cast<int>(kind)));
    Bench bench(GetParam());
    Metric& metric = bench.Make(kind);
    for (int key = 0; key < 6; ++key) {
      emit(metric, std::to_string(key));
      const unsigned long beyond = key < 3 ? 0 : static_cast<unsigned long>(key - 2);
      EXPECT_EQ(bench.Total(), key < 3 ? static_cast<unsigned long>(key) + 1 : 4U);
      EXPECT_EQ(metric.emit_overflow_, beyond);
    }
    emit(metric, "1");
    emit(metric, "5");
    const auto sums = bench.Drain();
    EXPECT_EQ(sums.size(), 4u);
    EXPECT_EQ(sums.at(other), 4);
    double sum = 0;
    for (const auto& [values, number] : sums) sum += number;
    EXPECT_EQ(sum, 8);
    EXPECT_EQ(metric.emit_overflow_, 4u);
    EXPECT_EQ(metric.emit_fail_, 0u);
  }
}

TEST_P(CollectorLimitTest, HoldsExactlyWhileThreadsRace) {
  for (const int keys : {19, 20, 21, 60}) {  // around a limit of 20
    Bench bench(GetParam());
    Metric& metric = bench.Make(Kind::kCoItemSuffix, 20);
    constexpr int kThreads = 4, kRounds = 200;
    std::atomic<int> arrived{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (++arrived; arrived < kThreads;) std::this_thread::yield();
        for (int i = 0; i < keys * kRounds; ++i) {
          metric.Emit({{"a", (i + t) % keys}}, Incr(1));
          if (i % 64 == 0) metric.WithTagValues({std::to_string(i % keys)})->Emit(Incr(0));
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    const auto sums = bench.Drain();
    EXPECT_EQ(sums.size(), keys <= 20 ? static_cast<size_t>(keys) : 21u);
    EXPECT_EQ(sums.count({"other", "other"}), keys <= 20 ? 0u : 1u);
    EXPECT_EQ(metric.emit_overflow_ == 0, keys <= 20);
    double sum = 0;
    for (const auto& [values, number] : sums) sum += number;
    EXPECT_EQ(sum, static_cast<double>(kThreads * kRounds * keys));
  }
}

TEST_P(CollectorLimitTest, MakesRoomWithTheSeriesAndKeepsToTheQuota) {
  Bench bench(GetParam(), 5);
  Metric& metric = bench.Make(Kind::kCoItemSuffix);
  MetricRegistry& registry = *bench.client.Registry("p");
  const auto fill = [&](unsigned long series) {
    EXPECT_EQ(bench.Total(), 0u);
    for (int key = 0; key < 5; ++key) metric.Emit({{"a", key}}, Incr(1));
    EXPECT_EQ(bench.Total(), series);
  };
  fill(4);
  registry.Block();
  registry.UnBlock();
  fill(4);
  metric.impl_->ClearCollector();
  metric.Emit({{"a", "other"}, {"b", "other"}}, Incr(1));  // theirs from the start
  EXPECT_EQ(bench.metric->impl_->GetSeriesCount(), 1u);
  metric.impl_->ClearCollector();
  fill(4);
  Metric* again = nullptr;
  MetricInstanceCfg cfg;
  cfg.name = "m";
  cfg.max_series = 100;
  again = bench.client->CreateMetric({"p", {}, "t1"}, cfg).metric;
  EXPECT_TRUE(again == &metric && metric.max_series_ == kLimit);
  metric.impl_->ClearCollector();
  bench.client.Metric("q")->WithTags({});
  bench.client->collector_factory_->total_series_ += 1;  // three are left
  for (int key = 0; key < 5; ++key) metric.Emit({{"a", key}}, Incr(1));
  EXPECT_EQ(metric.emit_fail_, 2u) << "the overflow series counts in the quota";
  bench.client->collector_factory_->total_series_ -= 1;
}

TEST(SeriesLimitTest, ExpiryMakesRoomAndErasesTheOverflowSeriesToo) {
  Bench bench;
  Metric& metric = bench.Make(Kind::kCoItemSuffix);
  MetricCollectorBase& collector = *metric.impl_->collector_;
  for (int key = 0; key < 4; ++key) metric.Emit({{"a", key}}, Incr(1));
  BoundSeries bound;
  ASSERT_EQ(bound.Bind(&metric, {{"a", "late"}}, Incr(0)), ReturnCode::kOk);
  bound.Emit(1);
  EXPECT_EQ(bench.Drain().at({"other", "other"}), 2);
  collector.Erase({"1", "-"});
  metric.Emit({{"a", 7}}, Incr(1));
  EXPECT_EQ(bench.Drain().at({"7", "-"}), 1);
  collector.Erase({"other", "other"});
  EXPECT_EQ(metric.impl_->GetSeriesCount(), kLimit);
  collector.Erase({"2", "-"});
  bound.Emit(1);  // its series is gone, and now it has one of its own
  EXPECT_EQ(bench.Drain().at({"late", "-"}), 1);
  metric.Emit({{"a", 8}}, Incr(1));
  EXPECT_EQ(bench.Drain().at({"other", "other"}), 1);
  EXPECT_EQ(bench.Total(), 4u);
}

TEST_P(CollectorLimitTest, BoundsTheOverflowSeriesOfACompatibleMetric) {
  Bench bench(GetParam());
  Metric& metric = bench.Make(Kind::kCoItemCompatible);
  for (int key = 0; key < 300; ++key) {
    EXPECT_EQ(metric.CEmit(1, {"k" + std::to_string(key), "v"}), ReturnCode::kOk);
  }
  metric.CEmit(1, {"k299", "other"});
  EXPECT_EQ(metric.CEmit(1, {}), ReturnCode::kOk);
  const auto sums = bench.Drain();
  EXPECT_EQ(sums.size(), kLimit + kMostOverflowSeries + 1);
  EXPECT_EQ(sums.at({}), 302 - (3 + 64));
  EXPECT_EQ(bench.Total(), sums.size());
}

TEST(SeriesLimitTest, IsToldOnceAndIsThatOfTheFirstOfTwoNamesakes) {
  Bench bench;
  Metric& first = bench.Make(Kind::kCoItemSuffix);
  MetricInstanceCfg cfg;
  cfg.name = "p.m";
  cfg.tag_names = {"a", "b"};
  Metric* second = nullptr;
  bench.client.Registry("")->CreateMetric(second, cfg);
  const std::string log = LogOf(
      [&] {
        for (int key = 0; key < 9; ++key) second->Emit({{"a", key}}, Incr(1));
      },
      2);
  EXPECT_EQ(log.substr(log.find(']', log.find("Warn ") + 6) + 1),
            "Metric tenant[t1] p.m has its limit of 3 series: new ones go to \"other\"\n");
  EXPECT_EQ(bench.Total(), 4u);
  EXPECT_EQ(first.emit_overflow_, 6u);
}

TEST(SeriesLimitTest, AForkedChildStartsAtZeroWhateverTheParentWasDoing) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "its runtime starts no thread in the child of a process with several";
#endif
  Bench bench;
  Metric& metric = bench.Make(Kind::kCoItemSuffix);
  Workers others;
  others.Start(2, [&](int key) {
    metric.Emit({{"a", key}}, Incr(1));
    metric.WithTagValues({std::to_string(key), "x"})->Emit(Incr(1));
    bench.client->DebugString();
  });
  for (int round = 0; round < 20; ++round) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(20);
      bench.client->AtFork();
      bench.client->Init(std::make_unique<TestConfiger>(kNeverDue),
                         std::make_unique<tidegate::StaticVendor>("/tmp/nobody.listens"), nullptr,
                         {false, false});
      Metric& anew = bench.Make(Kind::kCoItemSuffix);
      for (int key = 10; key < 13; ++key) anew.Emit({{"a", key}}, Incr(1));
      const bool grew =
          CountOf("since the start: metric p.m of tenant t1, 3", bench.client->DebugString()) == 1;
      ::_exit(bench.Total() == 3 && anew.emit_overflow_ == 0 && grew ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
  }
}

TEST(DistinctCountTest, IsExactToItsBoundAndCloseBeyond) {
  for (const int distinct : {0, 1, 1023, 1024, 5000, 300000}) {
    DistinctCount count;
    for (int i = 0; i < 2 * distinct; ++i) count.Add(HashText(std::to_string(i % distinct)));
    EXPECT_EQ(count.IsExact(), distinct < 1024);
    EXPECT_NEAR(static_cast<double>(count.Count()), distinct, distinct < 1024 ? 0 : distinct / 5);
  }
}

TEST(DebugStringTest, NamesWhatGrewFastestAndTheTagsOfManySeries) {
  Bench bench;
  Metric& metric = bench.Make(Kind::kCoItemSuffix, 200);
  const auto lines = [&] { return bench.client->DebugString(); };
  EXPECT_THAT(lines(), testing::HasSubstr("fastest growing since the start: none\n"));
  for (int i = 0; i < 5; ++i) bench.client.Metric("small", {"t"})->Emit({{"t", i}}, Incr(1));
  for (int i = 0; i < 99; ++i) metric.Emit({{"a", i % 3}, {"b", i}}, Incr(1));
  const std::string few = lines();
  EXPECT_THAT(few, testing::HasSubstr("last look: metric p.m of tenant t1, 99 series; its tag b, "
                                      "99 values\n"));
  EXPECT_EQ(few.find("values of tags"), few.npos);
  for (int i = 0; i < 500; ++i) bench.client.Metric("small", {"t"})->Emit({{"t", i}}, Incr(1));
  for (int i = 99; i < 202; ++i) metric.Emit({{"a", 7}, {"b", i}}, Incr(1));
  EXPECT_THAT(lines(), testing::AllOf(
                           testing::HasSubstr("series 201, cells 201"),
                           testing::HasSubstr(", limit 200, in overflow 2\n    values of tags: b "
                                              "201, a 5\n"),
                           testing::HasSubstr("look: metric p.small of tenant t1, 495 series; its "
                                              "tag t, 495 values\n")));
  EXPECT_THAT(lines(), testing::HasSubstr("since the last look: none\n"));

  Bench pairs(0, 10000);
  Metric& compatible = pairs.Make(Kind::kCoItemCompatible, 0);
  for (int i = 0; i < 1500; ++i) {
    compatible.CEmit(1, {"x", "1", "y", std::to_string(i)});
    compatible.CEmit(1, {"key" + std::to_string(i), "1"});
  }
  EXPECT_THAT(
      pairs.client->DebugString(),
      testing::AllOf(testing::ContainsRegex("values of tags: y about 1[0-9]{3}, x 1, key0 1"),
                     testing::HasSubstr(", and fewer of the others\n"),
                     testing::HasSubstr("p.m of tenant t1, 3000 series; its tag y, about 1")));
}

}  // namespace
}  // namespace METRICS

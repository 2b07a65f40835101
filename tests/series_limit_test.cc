// A metric with a limit of its own: what is beyond it goes to the overflow series, and nothing is
// lost or made twice.

#include <sys/wait.h>
#include <unistd.h>

#include "metrics/bound_series.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_registry.h"
#include "support/environment.h"
#include "util/distinct_count.h"
#include "util/word_hash.h"

namespace METRICS {
namespace {

using namespace tidegate::test;
using Kind = MetricCoItemType;
using Strings = std::vector<std::string>;

constexpr uint64_t kLimit = 3;

double Sum(const std::map<Strings, double>& sums) {
  double sum = 0;
  for (const auto& [values, number] : sums) sum += number;
  return sum;
}

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

// The ways to a series of tag values; the last one is that of compatible metrics.
constexpr int kWays = 8;
void EmitBy(int way, Metric& metric, const std::string& a) {
  const std::vector<tidegate::MetricTag> tags{{"b", "x"}, {"a", a}};
  BoundSeries bound;
  if (way == 0) metric.WithTags(tags)->Emit(Incr(1));
  if (way == 1) metric.WithTags({{"a", a}, {"b", "x"}})->Emit({Incr(1)});
  if (way == 2) metric.WithTagValues({a, "x"})->Emit(Incr(1));
  if (way == 3) metric.WithTagValues({a})->Emit(Incr(1));
  if (way == 4) metric.WithTagMap({{"a", a}})->Emit(Incr(1));
  if (way == 5) metric.Emit({{"a", a}, {"b", "x"}}, Incr(1));
  if (way == 6 && bound.Bind(&metric, tags, Incr(0)) == ReturnCode::kOk) bound.Emit(1);
  if (way == 7) metric.CEmit(1, {"b", "x", "a", a});
}

class CollectorLimitTest : public testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(Kinds, CollectorLimitTest, testing::Values(0U, 1U));

TEST_P(CollectorLimitTest, EachWayLeadsToOneOverflowSeriesBeyondTheLimit) {
  const Strings all{"other", "other"}, of_pairs{"b", "other", "a", "other"};
  for (int i = 0; i < 2 * kWays; ++i) {
    const int way = i / 2;
    const bool pairs = way == 7;
    SCOPED_TRACE(way);
    Bench bench(GetParam());
    Metric& metric = bench.Make(pairs        ? Kind::kCoItemCompatible
                                : i % 2 == 0 ? Kind::kCoItemSuffix
                                             : Kind::kCoItemField);
    for (unsigned key = 0; key < 6; ++key) {
      EmitBy(way, metric, std::to_string(key));
      EXPECT_EQ(bench.Total(), std::min(key + 1, 4U));
      EXPECT_EQ(metric.emit_overflow_, key < 3 ? 0 : key - 2);
    }
    EmitBy(way, metric, "1");
    EmitBy(way, metric, "5");
    const auto sums = bench.Drain();
    EXPECT_EQ(sums.size(), 4u);
    EXPECT_EQ(sums.at(pairs ? of_pairs : all), 4);
    EXPECT_EQ(Sum(sums), 8);
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
    EXPECT_EQ(Sum(sums), static_cast<double>(kThreads * kRounds * keys));
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
  MetricInstanceCfg cfg;
  cfg.name = "m";
  cfg.max_series = 100;
  EXPECT_EQ(bench.client->CreateMetric({"p", {}, "t1"}, cfg).metric, &metric);
  EXPECT_EQ(metric.max_series_, kLimit);
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
  Bench bench(0, 10000), pairs(0, 10000);
  Metric& metric = bench.Make(Kind::kCoItemSuffix, 200);
  Metric& small = *bench.client.Metric("small", {"t"});
  const auto grew = [&](const std::string& lines, const std::string& what) {
    EXPECT_THAT(lines, testing::HasSubstr("fastest growing since the " + what));
    return lines;
  };
  grew(bench.client->DebugString(), "start: none\n");
  for (int i = 0; i < 5; ++i) small.Emit({{"t", i}}, Incr(1));
  for (int i = 0; i < 99; ++i) metric.Emit({{"a", i % 3}, {"b", i}}, Incr(1));
  const std::string few = grew(bench.client->DebugString(),
                               "last look: metric p.m of tenant t1, 99 series; its tag b, 99 val");
  EXPECT_EQ(few.find("values of tags"), few.npos);
  for (int i = 0; i < 500; ++i) small.Emit({{"t", i}}, Incr(1));
  for (int i = 99; i < 202; ++i) metric.Emit({{"a", 7}, {"b", i}}, Incr(1));
  EXPECT_THAT(grew(bench.client->DebugString(), "last look: metric p.small of tenant t1, 495 ser"),
              testing::HasSubstr(", limit 200, in overflow 2\n    values of tags: b 201, a 5\n"));
  grew(bench.client->DebugString(), "last look: none\n");

  Metric& compatible = pairs.Make(Kind::kCoItemCompatible, 0);
  for (int i = 0; i < 3000; ++i) {
    compatible.CEmit(1,
                     {i % 2 == 0 ? "x" : "key" + std::to_string(i), "1", "y", std::to_string(i)});
  }
  EXPECT_THAT(grew(pairs.client->DebugString(),
                   "start: metric p.m of tenant t1, 3000 series; its "
                   "tag y, about "),
              testing::ContainsRegex("tags: y about [23][0-9]{3}, x 1, key1 1, .*of the others"));
}

}  // namespace
}  // namespace METRICS

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

// Adds one to each of the series `from` to `to`.
void Fill(Metric& metric, int from, int to) {
  for (int key = from; key < to; ++key) metric.Emit({{"a", key}}, Incr(1));
}

// A client with one collector kind, and metrics `m` of a form with the tags a and b.
struct Bench {
  explicit Bench(uint32_t collectors = 0, uint64_t quota = 1000)
      : client({{}, kNeverDue, {}, {false, false, false, 15000, 60, 600000, quota}}) {
    client->collector_factory_->collector_kind_ = collectors;
  }
  Metric& Make(Kind kind, uint64_t limit = kLimit) {
    MetricInstanceCfg cfg{"m", {}, {}, {}, nullptr, limit};
    if (kind != Kind::kCoItemCompatible) cfg.tag_names = {"b", "a"};
    if (kind == Kind::kCoItemField) cfg.fields = {{"rate", MetricsType::kRate}};
    client.Registry("p")->CreateMetric(metric, {kind, cfg});
    metric->SetCompatibleType(MetricsType::kRate);
    return *metric;
  }
  unsigned long Total() { return client->collector_factory_->total_series_; }
  MetricCollectorBase& Collector() { return *metric->impl_->collector_; }
  // What was emitted since the last call: on each series, and in `sum` together.
  std::map<Strings, double> Drain() {
    std::map<Strings, double> sums;
    sum = 0;
    for (const auto& [values, item] : Collector().GetAll()) {
      const bool pairs = metric->kind_ == Kind::kCoItemCompatible;
      const SendRes sent = (pairs ? item->Data() : item->Fields().at("rate"))->Send(1);
      sum += sums[values] = sent.values.empty() ? 0 : sent.values[0];
    }
    return sums;
  }
  TestClient client;
  Metric* metric = nullptr;
  double sum = 0;
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
  for (int i = 0; i < 2 * kWays; ++i) {
    const int way = i / 2;
    const bool pairs = way == 7;
    SCOPED_TRACE(way);
    Bench bench(GetParam());
    const Kind form = i % 2 == 0 ? Kind::kCoItemSuffix : Kind::kCoItemField;
    Metric& metric = bench.Make(pairs ? Kind::kCoItemCompatible : form);
    for (const int key : {0, 1, 2, 3, 4, 5, 1, 5}) EmitBy(way, metric, std::to_string(key));
    const auto sums = bench.Drain();
    EXPECT_EQ(sums.size(), 4u);
    EXPECT_EQ(bench.Total(), 4u);
    EXPECT_EQ(sums.at(pairs ? Strings{"b", "other", "a", "other"} : Strings{"other", "other"}), 4);
    EXPECT_EQ(metric.emit_overflow_, 4u);
    EXPECT_EQ(bench.sum, 8);
    EXPECT_EQ(metric.emit_fail_, 0u);
  }
}

TEST_P(CollectorLimitTest, HoldsExactlyWhileThreadsRaceAndSeriesGo) {
  for (const unsigned keys : {20U, 21U, 60U}) {  // around a limit of 20
    Bench bench(GetParam());
    Metric& metric = bench.Make(Kind::kCoItemSuffix, 20);
    for (const bool with_churn : {true, false}) {
      Workers churn;
      churn.Start(with_churn ? 2 : 0, [&](int i) {
        bench.Collector().Erase({std::to_string(i), "-"});
        bench.Collector().Erase({"other", "other"});
        if (i == 1) bench.Collector().Clear();
      });
      std::atomic<int> arrived{0};
      std::vector<std::thread> threads;
      for (unsigned t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
          for (++arrived; arrived < 4;) std::this_thread::yield();
          for (unsigned i = t; i < keys * 100 + t; ++i) {
            metric.Emit({{"a", i % keys}}, Incr(1));
            if (i % 64 == 0) metric.WithTagValues({std::to_string(i % keys)})->Emit(Incr(0));
          }
        });
      }
      for (std::thread& thread : threads) thread.join();
      churn.Stop();
      if (with_churn) bench.Collector().Clear();
    }
    const auto sums = bench.Drain();
    EXPECT_EQ(sums.size(), std::min(keys, 21u));
    EXPECT_EQ(bench.Total(), sums.size());
    EXPECT_EQ(sums.count({"other", "other"}), keys == 20 ? 0u : 1u);
    EXPECT_EQ(metric.emit_overflow_ == 0, keys == 20);
    EXPECT_EQ(bench.sum, 400. * keys);
  }
}

TEST_P(CollectorLimitTest, MakesRoomWithTheSeriesAndKeepsToTheQuota) {
  Bench bench(GetParam(), 5);
  Metric& metric = bench.Make(Kind::kCoItemSuffix);
  for (int round = 0; round < 3; ++round) {
    Fill(metric, 0, 5);
    EXPECT_EQ(bench.Total(), 4u);
    bench.client.Registry("p")->Block();
    bench.client.Registry("p")->UnBlock();
    metric.Emit({{"a", "other"}, {"b", "other"}}, Incr(1));  // theirs from the start
    EXPECT_EQ(bench.Total(), 1u);
  }
  bench.client->CreateMetric({"p", {}, "t1"}, {"m", {}, {}, {}, nullptr, 100});
  EXPECT_EQ(metric.max_series_, kLimit) << "the definition that was first";
  bench.Collector().Clear();
  for (const char* const other : {"q", "r"}) bench.client.Metric(other)->WithTags({});
  Fill(metric, 0, 5);
  EXPECT_EQ(metric.emit_fail_, 2u) << "the overflow series counts in the quota";
}

TEST(SeriesLimitTest, ABoundHandleGetsASeriesOfItsOwnOnceThereIsRoom) {
  Bench bench;
  Metric& metric = bench.Make(Kind::kCoItemSuffix);
  Fill(metric, 0, 3);
  BoundSeries bound;
  ASSERT_EQ(bound.Bind(&metric, {{"a", "late"}}, Incr(0)), ReturnCode::kOk);
  for (const Strings& own : {Strings{"other", "other"}, Strings{"late", "-"}}) {
    bound.Emit(1);
    EXPECT_EQ(bench.Drain().at(own), 1);
    bench.Collector().Erase({"1", "-"});  // and the series that it was bound to
    bench.Collector().Erase({"other", "other"});
  }
  EXPECT_EQ(bench.Total(), kLimit);
}

TEST_P(CollectorLimitTest, BoundsTheOverflowSeriesOfACompatibleMetric) {
  Bench bench(GetParam());
  Metric& metric = bench.Make(Kind::kCoItemCompatible);
  for (int key = 0; key < 300; ++key) metric.CEmit(1, {"k" + std::to_string(key), "v"});
  metric.CEmit(1, {"k299", "other"});
  metric.CEmit(1, {});
  EXPECT_EQ(bench.Drain().at({}), 302 - (3 + 64));
  EXPECT_EQ(bench.sum, 302);
  EXPECT_EQ(bench.Total(), kLimit + kMostOverflowSeries + 1);
}

TEST(SeriesLimitTest, IsToldOnceAndIsThatOfTheFirstOfTwoNamesakes) {
  Bench bench;
  Metric* second = nullptr;
  bench.Make(Kind::kCoItemSuffix);
  bench.client.Registry("")->CreateMetric(second,
                                          MetricInstanceCfg{"p.m", {"a", "b"}, {}, {}, nullptr});
  const std::string log = LogOf([&] { Fill(*second, 0, 9); }, 2);
  EXPECT_EQ(log.substr(log.find(']', log.find("Warn ") + 6) + 1),
            "Metric tenant[t1] p.m has its limit of 3 series: new ones go to \"other\"\n");
  EXPECT_EQ(bench.Total() + bench.metric->emit_overflow_, 4u + 6u);
}

TEST_P(CollectorLimitTest, AForkedChildStartsAtZeroWhateverTheParentWasDoing) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "its runtime starts no thread in the child of a process with several";
#endif
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a child waits for good for a lock of its allocator that another thread had";
#endif
  Bench bench(GetParam());
  Metric& metric = bench.Make(Kind::kCoItemSuffix);
  Workers others;
  others.Start(2, [&](int key) {
    metric.Emit({{"a", key}}, Incr(1));
    metric.WithTagValues({std::to_string(key), "x"})->Emit(Incr(1));
    bench.client->DebugString();
  });
  for (int round = 0, status = -1; round < 10; ++round) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(20);
      bench.client->AtFork();
      bench.client->Init(std::make_unique<TestConfiger>(kNeverDue),
                         std::make_unique<tidegate::StaticVendor>("/tmp/nobody.listens"), nullptr,
                         {false, false});
      Fill(bench.Make(Kind::kCoItemSuffix), 10, 13);
      const std::string grew = "since the start: metric p.m of tenant t1, 3 series";
      const bool fresh = bench.Total() == 3 && bench.metric->emit_overflow_ == 0;
      ::_exit(fresh && CountOf(grew, bench.client->DebugString()) == 1 ? 0 : 1);
    }
    ASSERT_TRUE(::waitpid(child, &status, 0) == child && status == 0);
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
  Metric& small = *bench.client.Metric("small", {"a"});
  Metric& compatible = pairs.Make(Kind::kCoItemCompatible, 0);
  const auto shows = [](Bench& of, const std::string& pattern) {
    EXPECT_THAT(of.client->DebugString(), testing::ContainsRegex(pattern));
  };
  const std::string since = "fastest growing since the ";
  shows(bench, since + "start: none\n");
  Fill(small, 0, 5);
  for (int i = 0; i < 99; ++i) metric.Emit({{"a", i % 3}, {"b", i}}, Incr(1));
  const std::string of_m = "last look: metric p.m of tenant t1, 99 series; its tag b, 99 values\n";
  shows(bench, "overflow 0\n  metric .*" + since + of_m);
  Fill(small, 5, 500);
  for (int i = 99; i < 202; ++i) metric.Emit({{"a", 7}, {"b", i}}, Incr(1));
  shows(bench, ", limit 200, in overflow 2\n    values of tags: b 201, a 5\n(.*\n)*" + since +
                   "last look: metric p.small of tenant t1, 495 series");
  shows(bench, since + "last look: none\n");
  for (int i = 0; i < 3000; ++i) {
    const std::string number = std::to_string(i);
    compatible.CEmit(1, {i % 2 == 0 ? "x" : "key" + number, "1", "y", number});
  }
  shows(pairs,
        "tags: y about [23][0-9]{3}, x 1, key1 1, .*of the others(.*\n)*fastest .* start: "
        "metric p.m of tenant t1, 3000 series; its tag y, about ");
}

}  // namespace
}  // namespace METRICS

// What a service's tests use: the receiver, the clock that it moves, and its matchers.

#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "metrics/metric_client.h"
#include "metrics/metric_collector_factory.h"
#include "support/environment.h"
#include "tidegate/metrics.h"
#include "tidegate/testing_gtest.h"
#include "util/wall_clock.h"

namespace METRICS {
namespace {

using namespace tidegate::test;
using std::chrono::hours;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using tidegate::Metrics;
using tidegate::testing::HasPoint;
using tidegate::testing::Receiver;

TEST(ReceiverTest, ACounterTakesThreeLines) {
  Receiver receiver;
  Metrics metrics(receiver.Options("shop"));
  metrics.Counter("requests", {"status"}).Add(3, {{"status", 200}});
  receiver.FlushNow();
  EXPECT_EQ(receiver.Value("shop.requests", {{"status", 200}}), 3);
}

TEST(ReceiverTest, FindsTheNumbersOfEachKind) {
  Receiver receiver;
  Metrics metrics(receiver.Options("s"));
  static const tidegate::GaugeField size("size");
  static const tidegate::RateField hits("hits");
  metrics.Counter("counter").Add(2);
  metrics.Rate("rate").Add(20);
  metrics.Meter("meter").Add(20);
  metrics.DeltaCounter("delta").Add(20);
  metrics.Gauge("gauge").Set(7);
  metrics.Timer("timer").Observe(std::chrono::microseconds(30));
  metrics.Timer("estimated", {}, {{}, 0, true}).Observe(std::chrono::microseconds(30));
  metrics.Histogram("histogram", std::vector<double>{0.5, 100}).Observe(7);
  metrics.Row("row", {}, {size, hits}).Emit({size(64), hits(30)});
  receiver.FlushNow();
  const struct {
    const char *name, *field;
    double value;
  } kCases[] = {{"counter", "", 2},      {"rate", "", 2},          {"meter", "", 20},
                {"meter", "rate", 2},    {"delta", "", 20},        {"delta", "delta", 20},
                {"delta", "rate", 2},    {"gauge", "", 7},         {"timer", "avg", 30},
                {"timer", "counter", 1}, {"estimated", "max", 30}, {"histogram", "0.5", 1},
                {"histogram", "100", 0}, {"histogram", "sum", 7},  {"histogram", "count", 1},
                {"row", "size", 64},     {"row", "hits", 3}};
  for (const auto& [name, field, value] : kCases) {
    EXPECT_THAT(receiver, HasPoint(std::string("s.") + name, {}, field, value));
    EXPECT_EQ(receiver.Value(std::string("s.") + name, {}, field), value) << name << ' ' << field;
  }
  EXPECT_EQ(receiver.Value("s.none"), std::nullopt);
  receiver.Clear();
  EXPECT_TRUE(receiver.Points().empty());
}

TEST(ReceiverTest, TheClockMovesOnlyWhenToldAndEachBoundaryIsFlushedOnce) {
  const int64_t before = std::time(nullptr);
  Receiver receiver;
  Metrics metrics(receiver.Options("s"));
  metrics.Rate("rate").Add(20);
  const auto start = receiver.Now();
  EXPECT_THAT(std::chrono::system_clock::to_time_t(start) - before,
              ::testing::AllOf(::testing::Ge(0), ::testing::Le(60)));
  receiver.FlushNow();
  EXPECT_EQ(receiver.Points().at(0).time % 60, 0);
  receiver.Advance(seconds(9));
  EXPECT_THAT(receiver.Values("s.rate"), ElementsAre(2));
  receiver.Advance(seconds(41));
  EXPECT_THAT(receiver.Values("s.rate"), ElementsAre(2, 0, 0)) << "until it is silent";
  metrics.Rate("rate").Add(10);
  const auto began = std::chrono::steady_clock::now();
  receiver.Advance(hours(3));
  EXPECT_LT(std::chrono::steady_clock::now() - began, seconds(20));
  EXPECT_THAT(receiver.Values("s.rate"), ElementsAre(2, 0, 0, 1, 0, 0));
  for (const auto& point : receiver.Points()) EXPECT_EQ(point.time % 10, 0);
  EXPECT_GE(receiver.Now() - start, hours(3));
}

TEST(ReceiverTest, ExpirySelfMonitoringAndLongIntervalsFollowTheClock) {
  Receiver receiver;
  TestClientOptions options = ReportTo(receiver.SocketPath(), 10);
  options.core = {true, true};
  TestClient client(std::move(options));
  client.Registry("slow", "t1", {}, 30);
  const auto emit = [&](const char* a) {
    return client.Metric("m", {"a"}, "slow")->WithTags({{"a", a}})->Emit({Incr(30)});
  };
  emit("old");
  receiver.FlushNow();
  EXPECT_THAT(receiver, HasPoint("slow.m.rate", {{"a", "old"}}, 1));
  EXPECT_THAT(receiver, HasPoint("inf.tidegate.metric", {{"metric_name", "slow.m"}}, "emit.success",
                                 ::testing::Gt(0)));
  receiver.Advance(hours(1));
  emit("new");
  EXPECT_EQ(client->collector_factory_->GetCollectorSeriesMap()["slow.m"], 2u);
  receiver.Advance(hours(1) + seconds(70));
  EXPECT_EQ(client->collector_factory_->GetCollectorSeriesMap()["slow.m"], 1u);
  receiver.Advance(hours(3));
  EXPECT_EQ(client->collector_factory_->GetCollectorSeriesMap()["slow.m"], 0u);
  EXPECT_EQ(client->collector_factory_->GetCollectorSeriesMap()["inf.tidegate.version"], 1u);
}

TEST(ReceiverTest, NothingGoesFromOneToTheNext) {
  TestClient before(ReportTo("", 10));  // its thread sleeps by the system's clock
  before.Metric("m");
  for (int round = 0; round < 3; ++round) {
    auto one = std::make_unique<Receiver>();
    Receiver other;
    Metrics first(one->Options("s")), second(other.Options("s"));
    first.Gauge("gauge").Set(round);
    second.Gauge("gauge").Set(10 + round);
    one->FlushNow();
    EXPECT_THAT(one->Values("s.gauge"), ElementsAre(round));
    EXPECT_THAT(other.Values("s.gauge"), ElementsAre(10 + round));
    first.Gauge("gauge").Set(1);
    one.reset();
    other.Advance(seconds(20));  // the first client finds nobody
    EXPECT_EQ(other.Values("s.gauge").size(), 1u);
    second.Gauge("gauge").Set(3);
    second.Stop();
    EXPECT_EQ(other.Value("s.gauge"), 3) << "of the last flush";
  }
  before.Sender().Exit();
  EXPECT_LE(std::abs(before.Sender().last_flush_ts_ / 60 - std::time(nullptr) / 60), 60);
  EXPECT_EQ(std::time(nullptr) - WallSeconds(), 0) << "the system's clock is back";
}

TEST(ReceiverTest, WaitsForWhatAnotherThreadEmits) {
  Receiver receiver;
  Metrics metrics(receiver.Options("s"));
  const auto counter = metrics.Counter("jobs", {"pool"});
  EXPECT_EQ(receiver.WaitFor("s.jobs", {}, std::chrono::milliseconds(1)), std::nullopt);
  std::thread worker([&] {
    for (int i = 0; i < 5; ++i) {
      counter.Add(1, {{"pool", "web"}});
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  EXPECT_TRUE(receiver.WaitFor("s.jobs", {{"pool", "web"}}, 5));
  EXPECT_FALSE(receiver.WaitFor("s.jobs", {{"pool", "web"}}, 6, std::chrono::milliseconds(5)));
  worker.join();
}

TEST(ReceiverTest, MisuseIsToldAndFailuresListWhatArrived) {
  Receiver receiver;
  Metrics metrics(receiver.Options("s"));
  const auto requests = metrics.Counter("requests", {"method"});
  requests.Add(1, {{"method", "get"}});
  requests.Add(2, {{"method", "post"}});
  metrics.Timer("timer").Observe(seconds(1));
  receiver.FlushNow();
  const auto text_of = [](auto call) -> std::string {
    try {
      call();
    } catch (const std::invalid_argument& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_THAT(text_of([&] { receiver.Value("s.requests"); }),
              ::testing::MatchesRegex("Value: several series have these tags: s.requests.method="
                                      "(get|post). and s.requests.method=(get|post)."));
  EXPECT_THAT(text_of([&] { receiver.Value("s.timer"); }), HasSubstr("no field \"\", but \"avg\""));
  EXPECT_THAT(text_of([&] { receiver.Advance(seconds(-1)); }), HasSubstr("0 s to ten years"));
  const auto matcher = HasPoint("s.requests", {{"method", "get"}}, ::testing::Gt(7));
  std::ostringstream expected, why, actual;
  matcher.DescribeTo(&expected);
  EXPECT_FALSE(matcher.MatchAndExplain(receiver, &why));
  actual << receiver;
  EXPECT_EQ(expected.str(), "has a point s.requests{method=get} whose number is > 7");
  EXPECT_EQ(why.str(), "which has only { 0, 1 }");
  EXPECT_THAT(actual.str(), HasSubstr("\n  s.requests{method=post} counter 2"));
  EXPECT_THAT(receiver, ::testing::Not(HasPoint("s.requests", {{"method", "put"}})));
}

TEST(ReceiverTest, AForkedChildReportsToItAndMayHaveItsOwn) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "its runtime starts no thread in a forked child";
#endif
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a child waits for good for a lock of its allocator that another thread had";
#endif
  Receiver receiver;
  Metrics metrics(receiver.Options("s"));
  const auto counter = metrics.Counter("c", {"who"});
  counter.Add(1, {{"who", "parent"}});
  std::vector<pid_t> children;
  for (int i = 0; i < 3; ++i) {
    children.push_back(::fork());
    if (children.back() != 0) continue;
    int failures = 0;
    metrics.AtFork();
    failures += metrics.Init() ? 0 : 1;
    counter.Add(1, {{"who", i}});
    try {
      receiver.FlushNow();
      ++failures;
    } catch (const std::system_error&) {
    }
    {
      Receiver own;
      Metrics other(own.Options("child"));
      other.Counter("c").Add(2);
      own.FlushNow();
      failures += own.Value("child.c") == 2 ? 0 : 1;
    }
    metrics.Stop();
    receiver.~Receiver();  // as at the end of a test
    ::_exit(failures);
  }
  for (const pid_t child : children) {
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  receiver.FlushNow();
  for (const char* who : {"parent", "0", "1", "2"}) {
    EXPECT_EQ(receiver.Value("s.c", {{"who", who}}), 1) << who;
  }
}

}  // namespace
}  // namespace METRICS

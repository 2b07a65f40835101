// The parts around the core that make it pleasant: settings and machine of a first program, bounds,
// timers of scopes, verbs for all numbers, and a look into a client.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <thread>

#include "support/environment.h"
#include "tidegate/metrics.h"
#include "tidegate/testing.h"

namespace METRICS {
namespace {

using namespace tidegate::test;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using tidegate::testing::Receiver;

std::vector<double> DrainTimer(Metric& metric, const std::vector<tidegate::MetricTag>& tags) {
  return metric.WithTags(tags)->Fields().at("timer")->Send(1).values;
}

TEST(ConvenienceTest, VerbsTakeEveryNumber) {
  constexpr auto kTop = std::numeric_limits<int64_t>::max();
  const auto expect_integer = [](const MetricFieldValue& value, int64_t number) {
    EXPECT_TRUE(value.is_integer && value.value.integer == number) << number;
  };
  const auto expect_real = [](const MetricFieldValue& value, double number) {
    EXPECT_TRUE(!value.is_integer && value.value.real == number) << number;
  };
  expect_integer(Incr(4000000000U), 4000000000);
  expect_integer(Store('a'), 97);
  expect_integer(Add(true), 1);
  expect_integer(Stat(std::numeric_limits<long long>::min()), std::numeric_limits<int64_t>::min());
  expect_integer(IncrMeter(static_cast<uint64_t>(kTop)), kTop);
  expect_real(IncrCounter(static_cast<uint64_t>(kTop) + 1), 0x1p63);
  expect_real(Incr(2.5F), 2.5);
  expect_real(Observe(2.5L), 2.5);
  expect_real(Observe(std::chrono::nanoseconds(1500)), 1.5);
  expect_real(Observe(std::chrono::duration<float, std::ratio<60>>(0.5F)), 3e7);
  EXPECT_TRUE(Observe(std::chrono::seconds(1)).name == "timer" &&
              Incr(1ULL).type == MetricsType::kRate);
}

TEST(ConvenienceTest, BoundsAreRefusedWithAReason) {
  EXPECT_THAT(HistoUtil::Linear(-1, 0.5, 4).bounds, ElementsAre(-1, -0.5, 0, 0.5));
  EXPECT_THAT(HistoUtil::Exponential(10, 3, 3).bounds, ElementsAre(10, 30, 90));
  EXPECT_TRUE(HistoUtil::Linear(0, 1, 100).Check());
  const std::pair<HistoUtil, const char*> refused[] = {
      {HistoUtil::Explicit({}), "there are no bounds"},
      {HistoUtil::Linear(0, 1, 101), "there are more than 100 bounds"},
      {HistoUtil::Linear(0, 1, SIZE_MAX), "there are more than 100 bounds"},
      {HistoUtil::Explicit({1, 3, 3}), "bound 3, 3, is not above bound 2, 3"},
      {HistoUtil::Linear(5, -1, 2), "bound 2, 4, is not above bound 1, 5"},
      {HistoUtil::Exponential(1, 1e200, 3), "bound 3, inf, is not finite"},
      {HistoUtil::Explicit({std::nan("")}), "bound 1, nan, is not finite"},
      {HistoUtil::Exponential(1e-8, 10, 3),
       "bounds 1, 1e-08, and 2, 1e-07, are equal at six decimals"},
  };
  for (const auto& [bounds, reason] : refused) EXPECT_EQ(bounds.Reason(), reason);
}

TEST(ConvenienceTest, AScopeIsObservedOnceWhereItsTagsSay) {
  TestClient client;
  Metric& metric = *client.Metric("m", {"status"});
  constexpr std::chrono::milliseconds kScope(2);  // long enough to tell microseconds from others
  {
    ScopedTimer timer(&metric);
    std::this_thread::sleep_for(kScope);
    timer.WithTags({{"status", "bad tag|"}});
    timer.WithTags({{"status", "200"}});
    ScopedTimer moved = std::move(timer);
    moved.Stop();
    moved.WithTags({{"status", "late"}});
  }
  const std::vector<double> micros = DrainTimer(metric, {{"status", "200"}});
  ASSERT_EQ(micros.size(), 10u);
  EXPECT_TRUE(micros[0] >= 2000 && micros[0] < 60e6 && micros[4] == 1) << micros[0];
  BoundSeries bound;
  bound.Bind(&metric, {{"status", "bound"}}, Observe(0));
  const auto item = metric.WithTags({{"status", "held"}});
  {
    ScopedTimer cancelled(&metric);
    cancelled.WithTags({{"status", "cancelled"}});
    cancelled.Cancel();
    const ScopedTimer nothing(static_cast<Metric*>(nullptr));
    const ScopedTimer plain(&metric);
    ScopedTimer held(item);
    held = ScopedTimer(item);
    EXPECT_TRUE(item->IsHeld()) << "for expiry";
    const ScopedTimer fast(bound);
  }
  EXPECT_FALSE(item->IsHeld());
  for (const auto& [status, count] :
       {std::pair("-", 1), std::pair("held", 2), std::pair("bound", 1)}) {
    EXPECT_EQ(DrainTimer(metric, {{"status", status}}).at(4), count) << status;
  }
  EXPECT_EQ(metric.impl_->GetSeriesCount(), 4u);
}

TEST(ConvenienceTest, AScopeThatReportsNothingSaysWhy) {
  TestClient client;
  Metric& metric = *client.Metric("m", {"status"});
  MetricRegistry& registry = *client.Registry("p");
  Metric* compatible = nullptr;
  registry.CreateMetric(compatible, {MetricCoItemType::kCoItemCompatible, {"c", {}, {}, {}}});
  BoundSeries counter, nowhere;
  counter.Bind(&metric, {}, IncrCounter(0));
  EXPECT_EQ(ScopedTimer(static_cast<Metric*>(nullptr)).Stop(), ReturnCode::kNullptr);
  EXPECT_EQ(ScopedTimer(compatible).Stop(), ReturnCode::kNotSupported);
  EXPECT_EQ(compatible->impl_->GetSeriesCount(), 0u);
  EXPECT_EQ(ScopedTimer(nowhere).Stop(), ReturnCode::kNotSupported);
  EXPECT_THAT(
      LogOf([&] { EXPECT_EQ(ScopedTimer(counter).Stop(), ReturnCode::kInvalidMetricType); }),
      HasSubstr("]ScopedTimer on a handle of type counter: nothing is observed\n"));
  EXPECT_THAT(metric.WithTags({})->Fields().at("counter")->Send(1).values, testing::IsEmpty());
  EXPECT_EQ(metric.emit_fail_, 0u);

  // A series that is blocked or removed while the scope runs costs it nothing.
  ScopedTimer nightly(&metric);
  nightly.WithTags({{"status", "nightly"}});
  registry.Block();
  registry.UnBlock();
  EXPECT_EQ(nightly.Stop(), ReturnCode::kOk);
  EXPECT_EQ(nightly.Stop(), ReturnCode::kNotSupported);
  EXPECT_EQ(DrainTimer(metric, {{"status", "nightly"}}).at(4), 1);
  ScopedTimer refused(&metric);
  refused.WithTags({{"status", "bad tag|"}});
  refused.WithTags({{"unknown", "v"}});
  EXPECT_EQ(refused.Stop(), ReturnCode::kNotSupported);
  EXPECT_EQ(metric.emit_fail_, 1u) << "refused once";
}

// The options of a service whose numbers arrive at `receiver`.
tidegate::Options Reaching(const Receiver& receiver) {
  tidegate::Options options = receiver.Options("shop");
  options.log_level = tidegate::LogLevel::kSilent;
  return options;
}

TEST(ConvenienceTest, TypedHandlesAreTimedAndTheirWorkMayOutliveAll) {
  const Receiver receiver;
  const ScopedLogLevel as_before(4);
  std::optional<ScopedTimer> late, late_bound;
  {
    tidegate::Metrics metrics(Reaching(receiver));
    std::optional<tidegate::Timer> latency(metrics.Timer("latency", {"status"}));
    const tidegate::BoundTimer get = latency->With({{"status", "get"}});
    {
      TIDEGATE_TIME_SCOPE(*latency);
      TIDEGATE_TIME_SCOPE(get);
      TIDEGATE_TIME_SCOPE(latency->With({{"status", "get"}}));
      ScopedTimer named(*latency);
      named.WithTags({{"status", 200}});
      late.emplace(get.Start());
      *late = latency->Start();
      late_bound.emplace(get.Start());
    }
    std::thread(
        [running = latency->Start()](int status) mutable {
          EXPECT_EQ(running.Stop({{"status", status}}), ReturnCode::kOk);
          EXPECT_EQ(running.Stop(), ReturnCode::kNotSupported);
        },
        200)
        .join();
    latency.reset();
  }
  EXPECT_EQ(late->Stop({{"status", 200}}), ReturnCode::kObjectExit);
  EXPECT_NE(late_bound->Stop(), ReturnCode::kOk);
  EXPECT_EQ(ScopedTimer(tidegate::Timer()).Stop(), ReturnCode::kNotSupported);
  EXPECT_EQ(tidegate::BoundTimer().Start().Stop(), ReturnCode::kNotSupported);
  std::map<std::string, double> counts;
  for (const auto& point : receiver.Points()) {
    if (point.name == "shop.latency.counter") {
      counts[point.tags.at(0).value] += point.values.at(0);
    }
  }
  EXPECT_THAT(counts, ElementsAre(std::pair("-", 1), std::pair("200", 2), std::pair("get", 3)));
}

TEST(ConvenienceTest, OpenScopesAreReportedAndMayOutliveAll) {
  const Receiver receiver;
  const ScopedLogLevel as_before(4);
  std::vector<tidegate::InFlight::Scope> open;
  {
    tidegate::Metrics metrics(Reaching(receiver));
    const auto in_flight = metrics.InFlight("open", {{"pool", "web"}, {"dc", "d"}});
    const auto same = metrics.InFlight("open", {{"dc", "d"}, {"pool", "web"}});
    const auto quiet = metrics.InFlight("open", {{"pool", "io"}, {"dc", "d"}});
    EXPECT_TRUE(in_flight && quiet);
    metrics.Counter("taken");
    const auto failed = metrics.InFlight("taken");
    EXPECT_THAT(failed.Error(), HasSubstr("another kind"));
    const auto none = failed.Enter();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&in_flight] {
        tidegate::InFlight::Scope last;
        for (int k = 0; k < 10000; ++k) last = in_flight.Enter();
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (int i = 0; i < 3; ++i) open.push_back(same.Enter());
    open[0].End();
    open[0] = std::move(open[1]);
    EXPECT_EQ(in_flight.Now(), 2);
    const pid_t child = ::fork();
    if (child == 0) {
      metrics.AtFork();
      open.clear();
      const bool nothing = in_flight.Now() == 0;
      const auto scope = same.Enter();
      ::_exit(nothing && in_flight.Now() == 1 ? 0 : 1);
    }
    int status = 0;
    EXPECT_TRUE(::waitpid(child, &status, 0) == child && status == 0) << status;
    EXPECT_EQ(in_flight.Now(), 2);
  }
  open.clear();
  std::map<std::string, double> last;
  for (const auto& point : receiver.Points()) {
    if (point.name == "shop.open") last[point.tags.at(1).value] = point.values.at(0);
  }
  EXPECT_THAT(last, ElementsAre(std::pair("io", 0), std::pair("web", 2)));
}

TEST(ConvenienceTest, ErrorsAreCountedAndTheirLinesAreFew) {
  const Receiver receiver;
  const ScopedLogLevel as_before(4);
  const std::string lines = LogOf(
      [&receiver] {
        tidegate::Options options = Reaching(receiver);
        options.log_level = tidegate::LogLevel::kError;
        tidegate::Metrics metrics(options);
        const tidegate::ErrorCounter errors = metrics.Errors("errors", {"kind"});
        EXPECT_EQ(errors.Count("line 1\nline 2", {{"kind", 5}}), ReturnCode::kOk);
        EXPECT_EQ(errors.Count("never seen"), ReturnCode::kOk);
        EXPECT_EQ(tidegate::ErrorCounter().Count("nobody's"), ReturnCode::kNotSupported);
        ErrorLog log("often", std::chrono::milliseconds(500));
        for (const char* const text : {"a", "b", "c"}) log.Tell(text);
        std::this_thread::sleep_for(std::chrono::milliseconds(510));  // the period
        for (const char* const text : {"d", "e"}) log.Tell(text);
      },
      3);
  EXPECT_THAT(lines, testing::MatchesRegex(".*\\]errors: line 1 line 2\n.*\\]often: a\n.*\\]often: "
                                           "d .2 more since the last line.\n"));
  std::map<std::string, double> totals;
  for (const auto& point : receiver.Points()) {
    double& total = totals[point.tags.at(0).value];
    total = std::max(total, point.values.at(0));
  }
  EXPECT_THAT(totals, ElementsAre(std::pair("-", 1), std::pair("5", 1)));
}

TEST(ConvenienceTest, SettingsThatDoNotFitAreToldWhenARegistryIsMade) {
  EXPECT_EQ(tidegate::StaticConfiger({}).GetTenantInterval("any"), std::pair(true, 30));
  EXPECT_FALSE(tidegate::StaticVendor({}).EnableMonitor());
  const std::string lines = LogOf([] {
    TestClientOptions options = ReportTo("", 10);
    options.vendor.tags = {{"ok", "v"}, {"a b", "v"}};
    options.vendor.default_tags = {{"c", "{"}};
    options.log_level.reset();
    TestClient client(std::move(options));
    for (const int interval : {15, 30, 5}) {
      client.Registry("every" + std::to_string(interval), "t", {}, interval);
      // The flush thread asks for the tenant's interval: it or the caller may be the one to tell.
      WaitFor([&] { return client.Sender("t").interval_known_.load(); });
    }
  });
  EXPECT_THAT(lines,
              HasSubstr("Illegal tag of the vendor on registry[t.every15]: key[a b] value[v]"));
  EXPECT_EQ(CountOf("Illegal tag of the vendor", lines), 6u);
  EXPECT_THAT(
      lines,
      HasSubstr("]Interval[15s] of registry[t.every15] is no multiple of its tenant's[10s]\n"));
  EXPECT_THAT(lines, HasSubstr("]Interval[5s] of registry[t.every5] is no multiple"));
  EXPECT_EQ(CountOf("[t.every30] is no multiple", lines), 0u);
}

TEST(ConvenienceTest, AFirstProgramNeedsNoClassOfItsOwn) {
  const Receiver receiver;
  const ScopedLogLevel silent(4);
  const std::pair<std::unique_ptr<tidegate::StaticConfiger>, int> plain[] = {
      {std::make_unique<tidegate::StaticConfiger>(), 30},
      {std::make_unique<tidegate::StaticConfiger>(10), 10},
      {std::unique_ptr<tidegate::StaticConfiger>(new tidegate::StaticConfiger({})), 30},
      {std::unique_ptr<tidegate::StaticConfiger>(new tidegate::StaticConfiger({10})), 10}};
  for (const auto& [settings, interval] : plain) {
    EXPECT_EQ(settings->GetTenantInterval("any"), std::pair(true, interval));
  }
  auto settings = std::make_unique<tidegate::StaticConfiger>(
      tidegate::StaticConfiger::Options{60, {{"fast", 1}, {"none", 0}}, "a", "p"});
  EXPECT_EQ(settings->GetTenantInterval("other"), std::pair(true, 60));
  EXPECT_EQ(settings->GetTenantInterval("fast"), std::pair(true, 1));
  EXPECT_FALSE(settings->GetTenantInterval("none").first);
  MetricClient client;
  EXPECT_EQ(client.DebugString(), "client: not in service\n");
  client.Init(
      std::move(settings),
      std::make_unique<tidegate::StaticVendor>(tidegate::StaticVendor::Options{
          receiver.SocketPath(), {{"host", "h1"}}, {{"zone", "z"}, {"dc", "d"}}, "shop.web"}));
  Metric* const metric =
      client.CreateMetric({"p", {{"dc", "own"}}, "other"}, {"m", {"k"}, {}, {}}).metric;
  metric->WithTags({{"k", "v"}})->Emit({Incr(1), Store(2)});
  metric->WithTags({{"no", "v"}})->Emit({Incr(1)});
  EXPECT_THAT(client.DebugString(),
              AllOf(HasSubstr(receiver.SocketPath()), HasSubstr("dc=own,host=h1,zone=z"),
                    HasSubstr("p.m: suffixes, in service, series 1, cells 2"),
                    HasSubstr("emitted 2, failed 1"), HasSubstr("sender other: in service")));
  client.FlushAndExit();
  const auto tags = receiver.Points().at(0).tags;
  EXPECT_THAT(tags, testing::SizeIs(4));
  EXPECT_EQ(client.DebugString(), "client: not in service\n");
}

}  // namespace
}  // namespace METRICS

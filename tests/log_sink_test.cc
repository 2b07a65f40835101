// Where lines of the log go, and that no lock is held then: the build asserts that itself.

#include <mutex>

#include "metrics/bound_series.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_factory.h"
#include "support/environment.h"
#include "support/limited_allocations.h"
#include "tidegate/service_metrics.h"
#include "util/log_sink.h"
#include "util/metric_lock.h"
#include "util/metric_log.h"

namespace METRICS {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using tidegate::SetLogSink;
using tidegate::test::CountOf;
using tidegate::test::LogOf;
using tidegate::test::WaitFor;
using Level = tidegate::LogLevel;
using Text = std::string_view;

// Is the sink for its life, and notes what it takes on one thread.
struct NotingSink {
  NotingSink() {
    SetLogSink(
        [](void* to, Level level, Text text) {
          *static_cast<std::string*>(to) += std::to_string(int(level)) + std::string(text) + "\n";
        },
        &lines);
  }
  ~NotingSink() { SetLogSink(nullptr, nullptr); }

  std::string lines;
};

void LogTwo() {
  METRICS_LOG_WARN("a%s", " line\n");
  DebugMsg({"x", "y"}, "%d", 3);
}

TEST(LogSinkTest, TakesLevelAndTextAndLeavesWhatItCannotTakeToStandardOutput) {
  const std::string plain = LogOf(LogTwo, 0);
  EXPECT_THAT(plain, MatchesRegex(R"(\[MetricSDK\]\[Warn \]\[log_sink_test.cc:[0-9]+\]a line)"
                                  "\n"
                                  R"(\[MetricSDK\]\[Debug\]3 with tag value: x\|y\|)"
                                  "\n"));
  {
    const NotingSink sink;
    EXPECT_EQ(LogOf(LogTwo, 0), "");
    EXPECT_EQ(sink.lines, "2a line\n03 with tag value: x|y|\n");
  }
  SetLogSink([](Level, Text) { throw 1; });
  EXPECT_EQ(LogOf(LogTwo, 0), plain);
  SetLogSink([](Level, Text) { METRICS_LOG_ERROR("own\n"); });
  EXPECT_EQ(CountOf("]own\n", LogOf(LogTwo, 0)), 2u);
  int called = 0;
  SetLogSink([&](Level, Text) { SetLogSink(nullptr), ++called; });
  EXPECT_EQ(LogOf(LogTwo, 1) + LogOf(LogTwo, 0), plain);
  EXPECT_EQ(called, 1);

  const tidegate::test::ScopedLogLevel restored(255);
  EXPECT_EQ(tidegate::GetLogLevel(), Level::kSilent);
  tidegate::SetLogLevel(Level::kError);
  EXPECT_TRUE(g_metricsLogLevel == 3 && tidegate::GetLogLevel() == Level::kError);
}

TEST(LogSinkTest, ALineWithoutMemoryAndThoseBeyondAMebibyteGoToStandardOutput) {
  const NotingSink sink;
  EXPECT_THAT(LogOf([] {
                allocations_left = 0;
                METRICS_LOG_WARN("%d\n", 1);
                allocations_left = -1;
              }),
              testing::EndsWith("]1\n"));
  const std::string long_line(1024, 'x');
  const auto log = [&] {
    const LogScope scope;
    for (int i = 0; i < 1100; ++i) METRICS_LOG_WARN("%s\n", long_line.c_str());
    EXPECT_EQ(sink.lines, "") << "it is too early";
  };
  const size_t printed = CountOf(long_line, LogOf(log));
  EXPECT_TRUE(printed > 50 && printed < 150) << printed;
  EXPECT_EQ(CountOf(long_line, sink.lines) + printed, 1100u);
}

TEST(LogSinkTest, EachLineGoesToOneSinkWhichIsLeftBeforeTheNextIsSet) {
  constexpr int kThreads = 4, kEach = 10000;  // fewer bytes than may wait for an end
  std::atomic<int> lines{0}, to_the_dead{0}, running{kThreads}, first_alive{0}, sinks{0};
  const auto set_next = [&] {
    SetLogSink([&, number = sinks.load()](Level, Text) {
      ++lines;
      to_the_dead += number < first_alive ? 1 : 0;
    });
    first_alive = sinks++;
  };
  set_next();
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&running, i] {
      if (i % 2 == 0) MarkLibraryThread();
      for (int line = 0; line < kEach; ++line) METRICS_LOG_ERROR("%d\n", line);
      --running;
    });
  }
  while (running != 0) {
    set_next();
    const ThreadsEndLogScope end;
  }
  for (std::thread& thread : threads) thread.join();
  SetLogSink(nullptr);
  EXPECT_TRUE(lines == kThreads * kEach && to_the_dead == 0 && sinks > 1) << lines;
}

// What a sink may do on any line: it calls the client in all ways.
void UseClient(MetricClient& client) {
  static std::atomic<int> threads{0};
  static thread_local const std::string prefix = "sink" + std::to_string(++threads);
  MetricRegistryCfg registry;
  registry.tenant = "t1";
  registry.prefix = prefix;
  MetricInstanceCfg definition;
  definition.name = "m";
  definition.tag_names = {"a"};
  const auto [metric, code] = client.CreateMetric(registry, definition);
  if (metric != nullptr) {
    metric->Emit({{"a", "x"}, {"unknown", "x"}}, Incr(1));
    metric->Emit({{"a", "x"}}, Incr(1));
  }
  client.DebugString();
  client.Block(prefix, "t1");
  client.UnBlock(prefix, "t1");
  client.RemoveRegistry(prefix, "t1");
}

// Makes a client write lines of all sorts, from all of its threads.
void MakeLines(tidegate::test::TestClient& client, const std::function<bool()>& flushed) {
  MetricRegistry* none = nullptr;
  Metric* metric = nullptr;
  Metric& suffixed = *client.Metric("m", {"a"});
  EXPECT_EQ(client->metric_factory_->CreateRegistry(none, "p", {}, "t1"),
            ReturnCode::kObjectExisted);
  MetricRegistry& registry = *client.Registry("other", "t1", {}, 7);
  EXPECT_EQ(registry.CreateMetric(metric, "m", {}, nullptr), ReturnCode::kOk);
  EXPECT_EQ(registry.CreateMetric(metric, "m", {}, nullptr), ReturnCode::kObjectExisted);
  EXPECT_EQ(client.Registry("p.other")->CreateMetric(metric, "m", {}, nullptr), ReturnCode::kOk);
  EXPECT_EQ(registry.RemoveMetric("m"), ReturnCode::kOk);
  client.Metric("other.m");  // has the full name of another metric
  suffixed.Emit({{"a", "1"}}, {Incr(1), WithSuffix("bad suffix", Incr(1))});
  suffixed.Emit({{"a", "1"}}, WithSuffix("rate", Store(1)));
  suffixed.Emit({{"b", "1"}}, Incr(1));
  BoundSeries bound;
  EXPECT_EQ(bound.Bind(&suffixed, {{"a", "1"}}, Incr(0)), ReturnCode::kOk);
  client->Block("p", "t1");
  bound.Emit(1);
  suffixed.Emit({{"a", "1"}}, Incr(1));
  client->UnBlock("p", "t1");
  EXPECT_EQ(bound.Emit(1), ReturnCode::kOk);
  client->collector_factory_->collector_kind_ = 1;
  client.Metric("tree", {"a"})->Emit({{"a", "1"}}, Incr(1));
  client->collector_factory_->collector_kind_ = 0;
  std::unordered_map<std::string, int> intervals{{"t1", 1}};
  client->sender_manager_->UpdateSenderInterval(intervals);
  client.Registry("p", "t2");
  EXPECT_EQ(client->sender_manager_->RemoveSender("t2"), ReturnCode::kOk);
  EXPECT_TRUE(WaitFor(flushed));
  client->FlushAndExit();
}

tidegate::test::TestClientOptions Talkative() {
  tidegate::test::TestClientOptions options = tidegate::test::ReportTo("/nowhere/s");
  options.log_level = 0;
  options.core.force_self_monitor = options.core.enable_expire = true;
  options.core.monitor_interval = 20;
  options.core.monitor_flush_interval = 1;
  return options;
}

// A line from each lock that lines are written under, and from the threads.
const char* const kFromAllPlaces[] = {
    "CreateSender skipped.",    "Create new registry[",    "Create new metric tenant[",
    "Create Tenant Collector",  "Create a Item in KDTree", "Create Suffix: name[rate]",
    "Invalid string.",          "type mismatch",           "modify flush interval",
    "Metric Remove: tenant[t1", "Remove Collector",        "Block MetricRegistry",
    "connect to socket fail",   "enter FlushAndExit",      "TotalSeriesCount after Clear"};

TEST(LogSinkTest, LinesOfAllPlacesComeWithoutALockToASinkThatMayCallTheClient) {
  for (const bool calls : {false, true}) {
    std::mutex mutex;
    std::string lines;
    std::atomic<tidegate::test::TestClient*> made{nullptr};
    SetLogSink([&](Level, Text text) {
      EXPECT_EQ(HeldLocks(), 0);
      if (calls && made != nullptr) UseClient(**made);
      const std::lock_guard guard(mutex);
      lines += std::string(text) + "\n";
    });
    const std::string printed = LogOf([&] {
      tidegate::test::TestClient client(Talkative());
      made = &client;
      MakeLines(client, [&] {
        const std::lock_guard guard(mutex);
        return CountOf("connect to socket fail", lines) > 3;
      });
    });
    SetLogSink(nullptr);
    EXPECT_EQ(CountOf("MetricSender[t1] FlushAndExit", printed), 0u);
    EXPECT_TRUE(calls || printed.empty()) << printed;
    for (const char* const text : kFromAllPlaces) EXPECT_THAT(lines, HasSubstr(text));
  }
}

TEST(LogSinkTest, TheEndOfAClientWaitsForASinkOnItsThreads) {
  auto options = Talkative();
  options.log_level = 2;
  tidegate::test::TestClient client(options);
  client.Metric("m")->Emit({}, Store(1));
  std::atomic<bool> in_sink{false}, ending{false}, through{false};
  tidegate::Options for_sink;
  for_sink.service = "sink";
  for_sink.log_level = Level::kWarn;
  std::unique_ptr<tidegate::Metrics> made_in_sink;
  SetLogSink([&](Level, Text text) {
    if (text.find("try to reconnect") == Text::npos || in_sink.exchange(true)) return;
    made_in_sink = std::make_unique<tidegate::Metrics>(for_sink);
    WaitFor([&] { return ending.load(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // until the end is under way
    client->DebugString();  // waits for a lock that the end holds while it joins threads
    through = true;
  });
  EXPECT_TRUE(WaitFor([&] { return in_sink.load(); }));
  ending = true;
  client->FlushAndExit();
  EXPECT_TRUE(through && *made_in_sink);
  SetLogSink(nullptr);
}

TEST(LogSinkDeathTest, IsStillSetInAForkedChildAndMayBeReplacedThere) {
  std::atomic<bool> in_sink{false}, forked{false};
  std::atomic<int> of_child{0};
  SetLogSink([&](Level, Text text) {
    of_child += text == "child" ? 1 : 0;
    in_sink = true;
    WaitFor([&] { return forked || text == "child"; });
  });
  std::thread other([] { METRICS_LOG_ERROR("parent\n"); });
  WaitFor([&] { return in_sink.load(); });
  GTEST_FLAG_SET(death_test_style, "fast");
  const auto in_child = [&] {
    METRICS_LOG_ERROR("child\n");
    SetLogSink(nullptr);  // nobody is in it here, though the parent's thread was
    tidegate::test::TestClient client;
    client->FlushAndExit();
    ::_exit(of_child == 1 ? 0 : 1);
  };
  EXPECT_EXIT(in_child(), testing::ExitedWithCode(0), "");
  forked = true;
  other.join();
  SetLogSink(nullptr);
}

}  // namespace
}  // namespace METRICS

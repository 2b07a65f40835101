// A lack of threads and memory.

#include <dlfcn.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "metrics/metric_configer.h"
#include "metrics/metric_factory.h"
#include "metrics/sampler_thread.h"
#include "support/agent_socket.h"
#include "support/counted_allocations.h"
#include "support/environment.h"
#include "support/failing_new.h"
#include "testing/test_clock.h"
#include "tidegate/log.h"

static std::atomic<int> threads_left{-1};  // until they fail; negative: they never do

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): reserved names
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
  static const auto next =
      reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  if (threads_left == 0) return EAGAIN;
  if (threads_left > 0) --threads_left;
  return next(thread, attributes, start, argument);
}

static std::atomic<bool> own_threads_starve{false};

static bool OnOwnThread() {
  char name[16];
  return ::prctl(PR_GET_NAME, name) == 0 && std::strncmp(name, "ms_", 3) == 0;
}

static bool NextAllocationFails() {
  return (own_threads_starve && OnOwnThread()) || IsOneTooMany();
}

namespace tidegate::test {
namespace {

using METRICS::MetricClient;
using METRICS::MetricSenderType;
using METRICS::ReturnCode;
using METRICS::Store;

TEST(ShortageTest, WithoutAThreadNoSamplerIsTaken) {
  const auto thread = std::make_shared<METRICS::SamplerThread>(1);
  std::vector<Sampler> samplers;
  const auto add = [&] { samplers.push_back(thread->Add("s", [] {})); };
  SetLogSink([&](LogLevel /*level*/, std::string_view /*line*/) { add(); });  // in the first call
  threads_left = 0;
  add();
  SetLogSink(nullptr);
  ASSERT_EQ(samplers.size(), 2u);
  for (const Sampler& sampler : samplers) {
    EXPECT_EQ(sampler.Error(), "there is no thread to be had");
  }
  threads_left = -1;
  add();
  EXPECT_TRUE(samplers.back());
  thread->Stop();
}

TEST(ShortageTest, WithoutAThreadACallLeavesNothingAndTheNextOneTriesAgain) {
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  const TestClock clock;  // under which threads end at once
  const ScopedLogLevel silent(4);
  const long threads = ThreadCount();
  MetricClient client;
  const auto init = [&] {
    return client.Init(std::make_unique<TestConfiger>(kNeverDue),
                       std::make_unique<StaticVendor>(agent.path()), nullptr, {true, true});
  };
  for (int left = 0; left < 3; ++left) {  // the sender, the monitor, the expiry
    threads_left = left;
    EXPECT_THAT(LogOf([&] { EXPECT_EQ(init(), ReturnCode::kAllocCollectorError); }, 3),
                testing::HasSubstr(" not started: Resource temporarily unavailable\n"));
    EXPECT_EQ(client.sender_manager_, nullptr);
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
  }
  threads_left = -1;
  ASSERT_EQ(init(), ReturnCode::kOk);

  int refused = 0;
  for (const auto type : {MetricSenderType::kSenderUnixDomain, MetricSenderType::kSenderTcp}) {
    const METRICS::MetricRegistryCfg registry{"p", {}, "t1", nullptr, 1, type};
    threads_left = 0;
    for (int i = 0; i < 2; ++i) {
      const auto [metric, code] = client.CreateMetric(registry, {"m", {}, {}, {}});
      EXPECT_EQ(code, ReturnCode::kAllocCollectorError);
      EXPECT_EQ(metric, nullptr);
    }
    EXPECT_EQ(client.metric_factory_->GetAllRegistryNames().size(), 1u) << "the library's own";
    EXPECT_EQ(client.sender_manager_->GetAllTenant().size(), 1u);
    threads_left = -1;
  }
  const std::string tenant(40, 't');
  METRICS::MetricRegistry* registry = nullptr;
  // A forked child would abandon a table of senders that is being changed.
  for (long left = 0; registry == nullptr; ++left) {
    const auto create = [&] { client.CreateRegistry(registry, {"p", {{"k", "v"}}, tenant}); };
    refused += Manages(left, create) ? 0 : 1;
    const size_t standing = registry == nullptr ? 1 : 2;
    EXPECT_EQ(client.metric_factory_->GetAllRegistryNames().size(), standing);
    client.sender_manager_->RepairAfterFork();
    EXPECT_GE(client.sender_manager_->GetAllTenant().size(), standing) << "allocation " << left;
  }
  EXPECT_GT(refused, 10);
  const auto [metric, code] = client.CreateMetric({"p", {}, tenant}, {"m", {"w"}, {}, {}});
  ASSERT_EQ(code, ReturnCode::kOk);
  for (int i = 0; i < 100; ++i) {
    metric->WithTags({{"w", std::to_string(i)}})->Emit({Store(1)});
  }
  client.FlushAndExit();
  agent.Stop();
  size_t received = 0;
  for (const Point& point : agent.Points()) received += point.tenant == tenant ? 1 : 0;
  EXPECT_EQ(received, 100u);
}

TEST(ShortageTest, AClientThatLacksAPartMakesNothing) {
  const TestClient one_time_initialisations;
  const ScopedLogLevel silent(4);
  int lacking = 0;
  auto code = ReturnCode::kNewObjectFail;
  for (long left = 0; code != ReturnCode::kOk; ++left) {
    MetricClient client;
    auto configer = std::make_unique<TestConfiger>();
    Manages(left, [&] { code = client.Init(configer.get(), nullptr, nullptr, {false, false}); });
    if (client.configer_ != nullptr && client.configer_->impl_ != nullptr) {
      static_cast<void>(configer.release());
    } else {
      EXPECT_EQ(code, ReturnCode::kNewObjectFail);
      EXPECT_EQ(client.CreateMetric({"p", {}, "t1"}, {"m", {}, {}, {}}).code, ReturnCode::kNullptr);
      EXPECT_EQ(client.DebugString(), "client: not in service\n");
      ++lacking;
    }
  }
  EXPECT_GE(lacking, 6) << "parts of a client";
}

// Lets each allocation of a flush fail in turn. What reports once per emission then arrives with
// it, or with the next flush, or is counted as dropped.
TEST(ShortageTest, AFlushWithoutMemoryIsGivenUpAndWhatItDrainedIsCounted) {
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  TestClientOptions options = ReportTo(agent.path(), kNeverDue);
  options.core.force_self_monitor = true;
  options.core.monitor_interval = 1000000;
  TestClient client(std::move(options));
  METRICS::Metric* const suffixed = client.Metric("suffixed", {"w"});
  METRICS::Metric *row = nullptr, *compatible = nullptr;
  client.Registry("p")->CreateMetric(
      row, METRICS::MetricInstanceCfg{
               "row", {"w"}, {}, {{"f", METRICS::MetricsType::kGauge, nullptr}}, nullptr});
  client.Registry("p")->CreateMetric(compatible, {METRICS::MetricCoItemType::kCoItemCompatible,
                                                  {"compatible", {}, {}, {}, nullptr}});
  compatible->SetCompatibleType(METRICS::MetricsType::kGauge);
  METRICS::MetricSender& sender = client.Sender();
  const auto& drops = sender.statistic_.drop_series;
  constexpr size_t kSeries = 10;  // more than are listed at once
  const auto dropped = [&] {
    const std::vector<double> values = drops.Load()->Send(1).values;
    return values.empty() ? 0 : static_cast<size_t>(values[0]);
  };
  client.Flush(1);
  size_t flushes = 0, all_dropped = 0;
  for (long left = 0; left >= 0; ++left) {
    for (size_t i = 0; i < kSeries; ++i) {
      const std::string w = std::to_string(i);
      suffixed->WithTags({{"w", w}})->Emit({Store(1), METRICS::WithSuffix("b", Store(2))});
      row->WithTags({{"w", w}})->Emit({METRICS::WithField("f", Store(3))});
      compatible->CEmit(4, {"w", w});
    }
    allocations_left = left;
    EXPECT_TRUE(sender.DoPackAndSend());
    const bool given_up = allocations_left == 0;
    allocations_left = -1;
    client.Flush(2);
    const size_t lost = dropped();
    size_t received = 0;
    EXPECT_TRUE(agent.WaitUntil([&](const AgentSocket::Packets& packets) {
      received = PointsOf(packets).size();
      return received + lost >= 4 * kSeries;
    })) << left;
    EXPECT_EQ(received + lost, 4 * kSeries) << "dropped " << lost << " after " << left;
    agent.Take();
    all_dropped += lost;
    ++flushes;
    if (!given_up) break;
  }
  EXPECT_GT(flushes, 30u);
  EXPECT_GT(all_dropped, 10u);
  EXPECT_TRUE(agent.Errors().empty());
}

TEST(ShortageTest, TheLibrarysThreadsOutliveALackOfMemory) {
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  TestClientOptions options = ReportTo(agent.path(), 1);
  options.core = {true, true};
  options.core.monitor_interval = 100;
  options.core.expire_seconds = 1000;  // a pass every 100 ms
  const TestClock clock;
  TestClient client(std::move(options));
  METRICS::Metric* const metric = client.Metric("m", {"w"});
  const long threads = ThreadCount();
  double emitted = 0, received = 0;
  const std::string log = LogOf(
      [&] {
        own_threads_starve = true;
        for (int i = 0; i < 250; ++i) {
          metric->WithTags({{"w", std::to_string(i)}})->Emit({METRICS::Add(1)});
          ++emitted;
          if (i % 50 == 49) TestClock::Flush();
        }
        own_threads_starve = false;
      },
      3);
  for (const char* what : {"ms_expirer: out of memory, a pass",
                           "ms_monitor: out of memory, a round", "t1: out of memory, a flush"}) {
    EXPECT_GE(CountOf(std::string("]") + what + " given up\n", log), 2u) << what;
  }
  EXPECT_EQ(ThreadCount(), threads);
  TestClock::Flush();
  EXPECT_TRUE(agent.WaitUntil([&](const AgentSocket::Packets& packets) {
    received = 0;
    for (const Point& point : PointsOf(packets)) {
      received += point.name == "p.m.delta_counter" ? point.values.back() : 0;
    }
    return received >= emitted;
  }));
  EXPECT_EQ(received, emitted);
}

}  // namespace
}  // namespace tidegate::test

// Threads that the system refuses.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "metrics/metric_factory.h"
#include "support/agent_socket.h"
#include "support/environment.h"

static std::atomic<int> threads_left{-1};  // until they fail; negative: they never do

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
  static const auto next =
      reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  if (threads_left == 0) return EAGAIN;
  if (threads_left > 0) --threads_left;
  return next(thread, attributes, start, argument);
}

namespace tidegate::test {
namespace {

using METRICS::MetricClient;
using METRICS::MetricSenderType;
using METRICS::ReturnCode;
using METRICS::Store;

TEST(ShortageTest, WithoutAThreadACallLeavesNothingAndTheNextOneTriesAgain) {
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  const ScopedLogLevel silent(4);
  const long threads = ThreadCount();
  MetricClient client;
  const auto init = [&] {
    return client.Init(new TestConfiger({}, kNeverDue), new TestVendor({agent.path()}), nullptr,
                       {true, true});
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
  const auto [metric, code] = client.CreateMetric({"p", {}, "t1"}, {"m", {"w"}, {}, {}});
  ASSERT_EQ(code, ReturnCode::kOk);
  for (int i = 0; i < 100; ++i) {
    metric->WithTags({{"w", std::to_string(i)}})->Emit({Store(1)});
  }
  client.FlushAndExit();
  agent.Stop();
  size_t received = 0;
  for (const Point& point : agent.Points()) received += point.tenant == "t1" ? 1 : 0;
  EXPECT_EQ(received, 100u);
}

}  // namespace
}  // namespace tidegate::test

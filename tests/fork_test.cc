// Children of a process whose threads emit, make series and metrics, and flush.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "metrics/metric_factory.h"
#include "support/agent_socket.h"
#include "support/environment.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TIDEGATE_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TIDEGATE_SANITIZED 1
#endif
#endif

namespace tidegate::test {
namespace {

using METRICS::Add;
using METRICS::IncrCounter;
using METRICS::ReturnCode;
using METRICS::Store;
using std::chrono::microseconds;
using std::chrono::seconds;

// What a child does, without a word of gtest, of which it has but a copy. 0 is success.
int LiveAsChild(METRICS::MetricClient& client, const std::string& socket, int number) {
  client.AtFork();
  if (client.Init(new TestConfiger({}, kNeverDue), new TestVendor({socket}), nullptr, {}) !=
      ReturnCode::kOk) {
    return 2;
  }
  METRICS::MetricRegistryCfg registry;
  registry.tenant = "child" + std::to_string(number);
  const auto [metric, code] = client.CreateMetric(registry, {"m", {"w"}, {}, {}});
  if (code != ReturnCode::kOk) {
    return 3;
  }
  for (const char* w : {"0", "1", "2"}) {
    if (metric->WithTags({{"w", w}})->Emit({Store(number)}) != ReturnCode::kOk) {
      return 4;
    }
  }
  client.FlushAndExit();
  return 0;
}

// At random, and every fourth time to where a flush is likely to be under way.
void PauseBeforeFork(std::mt19937& random) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const bool aim = random() % 4 == 0;
  std::this_thread::sleep_for(microseconds(random() % (aim ? 4000 : 30000)) +
                              (aim ? seconds(1) - now % seconds(1) : seconds(0)));
}

TEST(ForkTest, ChildrenOfABusyProcessServeAndLeaveItsDataAlone) {
#ifdef TIDEGATE_SANITIZED
  GTEST_SKIP() << "the sanitizer's own runtime does not survive a fork with live threads";
#endif
  const char* const wanted = std::getenv("TIDEGATE_FORKS");
  const int forks = wanted == nullptr ? 20 : std::atoi(wanted);
  const unsigned seed = std::random_device()();
  std::printf("%d forks, seed %u\n", forks, seed);
  std::mt19937 random(seed);

  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  TestClient client(ReportTo(agent.path()));
  METRICS::Metric* const metric = client.Metric("m", {"w"});
  METRICS::MetricRegistry* const churn = client.Registry("churn");
  std::atomic<long> emissions{0};
  Workers workers;
  workers.Start(2, [&](int) {
    for (int n = 0; n < 3000; ++n) {
      const std::string w = std::to_string(++emissions % 2000);  // for a flush of some length
      metric->WithTags({{"w", w}})->Emit({Add(1)});
    }
  });
  workers.Start(2, [&](int i) {
    const std::string name = std::to_string(i);
    METRICS::Metric* brief = nullptr;
    for (int n = 0; n < 500; ++n) {
      churn->CreateMetric(brief, name, {"w"}, nullptr);
      brief->WithTags({{"w", "new"}})->Emit({IncrCounter(1), Store(1)});
      churn->RemoveMetric(name);
    }
    client.Metric("m", {}, name);
    client->metric_factory_->RemoveRegistry(name, "t1");
  });
  for (int number = 0; number < forks; ++number) {
    PauseBeforeFork(random);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::_exit(LiveAsChild(*client, agent.path(), number));
    }
    int status = -1;
    if (!WaitFor([&] { return ::waitpid(child, &status, WNOHANG) != 0; })) {
      ::kill(child, SIGKILL);
      ::waitpid(child, nullptr, 0);
    }
    ASSERT_EQ(status, 0) << "child " << number;
  }
  workers.Stop();
  SleepToMidSecond();
  client->FlushAndExit();
  agent.Stop();
  EXPECT_TRUE(agent.Errors().empty());

  double total = 0;
  std::map<std::string, std::vector<double> > of_children;
  for (const Point& point : agent.Points()) {
    if (point.tenant != "t1") {
      of_children[point.tenant].push_back(point.values.at(0));
    } else if (point.name == "p.m.delta_counter") {
      total += point.values.at(2);
    }
  }
  EXPECT_EQ(total, emissions);
  for (int number = 0; number < forks; ++number) {
    const double n = number;
    EXPECT_EQ(of_children["child" + std::to_string(number)], (std::vector<double>{n, n, n}));
  }
}

}  // namespace
}  // namespace tidegate::test

#include "metrics/metric_client.h"

#include <pthread.h>

#include "support/environment.h"
#include "tidegate/testing.h"

namespace tidegate::test {
namespace {

using METRICS::MetricClient;
using METRICS::ReturnCode;
using METRICS::Store;

void Exit(MetricClient& client) { EXPECT_EQ(client.Exit(), ReturnCode::kOk); }
void FlushAndExit(MetricClient& client) { client.FlushAndExit(); }
void AtFork(MetricClient& client) { client.AtFork(); }  // in the process that called `Init`
void DoNothing(MetricClient& /*client*/) {}

// What needs a client in service gets a code, or does nothing.
void ExpectOutOfService(MetricClient& client) {
  METRICS::MetricRegistry made({}, {}, nullptr, 1);
  METRICS::MetricRegistry* registry = &made;
  EXPECT_EQ(client.CreateRegistry(registry, {"p", {}, "t"}), ReturnCode::kNullptr);
  EXPECT_EQ(registry, nullptr);
  const auto [metric, code] = client.CreateMetric({"p", {}, "t"}, {"m", {}, {}, {}});
  EXPECT_TRUE(metric == nullptr && code == ReturnCode::kNullptr);
  for (const auto call :
       {&MetricClient::RemoveRegistry, &MetricClient::Block, &MetricClient::UnBlock}) {
    EXPECT_EQ((client.*call)("p", "t"), ReturnCode::kNullptr);
  }
  FlushAndExit(client);
  AtFork(client);
  Exit(client);
}

// What a provider went through.
struct Life {
  std::atomic<int> starts{0}, stops{0}, deletions{0};
  std::atomic<bool> alone{false};
};

// Looks, as it is told to stop, for threads that might still use it.
class WatchfulConfiger final : public StaticConfiger {
 public:
  explicit WatchfulConfiger(Life* life) : StaticConfiger({kNeverDue}), life_(life) {}
  ~WatchfulConfiger() override { ++life_->deletions; }
  void Start() override { ++life_->starts; }
  void Stop() override {
    ++life_->stops;
    life_->alone = WaitFor([this] { return ThreadCount() <= threads_; });
  }

 private:
  const long threads_ = ThreadCount();
  Life* const life_;
};

TEST(ClientTest, EveryEndIsCleanAndOnlyFlushAndExitKeepsValues) {
  std::thread([] {}).join();  // a sanitizer's own thread comes with the first one and stays
  const ScopedLogLevel silent(4);
  for (const auto end : {Exit, FlushAndExit, AtFork, DoNothing}) {
    const testing::Receiver receiver;
    auto client = std::make_unique<MetricClient>();
    ExpectOutOfService(*client);
    Life lives[2];
    const size_t rounds = end == DoNothing ? 1 : 2;  // a client serves again after an end
    for (size_t i = 0; i < rounds; ++i) {
      ASSERT_EQ(client->Init(std::make_unique<WatchfulConfiger>(&lives[i]),
                             std::make_unique<StaticVendor>(receiver.SocketPath()), nullptr,
                             {true, end != FlushAndExit}),
                ReturnCode::kOk);
      for (const char* tenant : {"t1", "t2"}) {
        const auto made = client->CreateMetric({"p", {}, tenant}, {"m", {}, {}, {}});
        made.metric->WithTags({})->Emit({Store(1)});
      }
      end(*client);
      if (end != DoNothing) ExpectOutOfService(*client);
    }
    const std::string log = LogOf([&client] { client.reset(); }, 0);
    EXPECT_THAT(log, ::testing::MatchesRegex("(.*\n)?\\[MetricSDK\\]\\[DEBUG\\]\\[metric_client.cc:"
                                             "[0-9]+\\]MetricClient Destructor.\n"));
    for (size_t i = 0; i < rounds; ++i) {
      EXPECT_TRUE(lives[i].starts == 1 && lives[i].stops == 1 && lives[i].deletions == 1);
      EXPECT_TRUE(lives[i].alone);
    }
    size_t received = 0;
    for (const auto& point : receiver.Points()) received += point.tenant[0] == 't' ? 1 : 0;
    EXPECT_EQ(received, end == FlushAndExit ? 4u : 0u);
  }
}

TEST(ClientTest, ACancelledThreadMakesItsRegistryAndEndsItsClientFirst) {
  const ScopedLogLevel silent(4);
  for (const auto end : {Exit, FlushAndExit}) {
    const testing::Receiver receiver;
    MetricClient client;
    ASSERT_EQ(
        client.Init(std::make_unique<TestConfiger>(kNeverDue),
                    std::make_unique<StaticVendor>(receiver.SocketPath()), nullptr, {false, true}),
        ReturnCode::kOk);
    const auto expect_done = [](auto call) {
      bool done = false;
      std::thread([&] {
        ::pthread_cancel(::pthread_self());  // acts at the first cancellation point
        call();
        done = true;
      }).join();
      EXPECT_TRUE(done);
    };
    expect_done([&] {
      client.CreateMetric({"p", {}, "t"}, {"m", {}, {}, {}}).metric->WithTags({})->Emit(Store(1));
    });
    expect_done([&] { end(client); });
    EXPECT_EQ(receiver.Points().size(), end == FlushAndExit ? 1u : 0u);
  }
}

}  // namespace
}  // namespace tidegate::test

#include "metrics/metric_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/agent_socket.h"
#include "support/environment.h"

namespace tidegate::test {
namespace {

using METRICS::MetricClient;
using METRICS::ReturnCode;
using METRICS::Store;

void Exit(MetricClient& client) { EXPECT_EQ(client.Exit(), ReturnCode::kOk); }
void FlushAndExit(MetricClient& client) { client.FlushAndExit(); }
void AtFork(MetricClient& client) { client.AtFork(); }  // in the process that called `Init`
void DoNothing(MetricClient& /*client*/) {}

// Every way to end a client, each followed by its destruction.
const struct {
  const char* name;
  void (*end)(MetricClient&);
} kEnds[] = {
    {"Exit", Exit}, {"FlushAndExit", FlushAndExit}, {"AtFork", AtFork}, {"destructor", DoNothing}};

TEST(ClientTest, EveryEndIsCleanAndOnlyFlushAndExitKeepsValues) {
  for (const auto& [name, end] : kEnds) {
    SCOPED_TRACE(name);
    const TempDir dir;
    AgentSocket agent(dir.File("s"));
    TestClient client(ReportTo(agent.path(), kNeverDue));
    for (const char* tenant : {"t1", "t2"}) {
      client.Metric("m", {}, "p", tenant)->WithTags({})->Emit({Store(1)});
    }
    end(*client);
    if (end != DoNothing) {
      Exit(*client);  // harmless after all of them
    }
    const std::string log = LogOf([&] { client.Reset(); }, 0);
    EXPECT_EQ(CountOf("[MetricSDK][DEBUG][metric_client.cc:", log), 1u);
    EXPECT_THAT(log, testing::EndsWith("]MetricClient Destructor.\n"));
    agent.Stop();
    EXPECT_EQ(agent.Points().size(), end == FlushAndExit ? 2u : 0u);
    EXPECT_EQ(client.life().starts, 1);
    EXPECT_EQ(client.life().stops, 1);
    EXPECT_EQ(client.life().deletions, 1);
  }
}

TEST(ClientTest, ServesAgainAfterAnEnd) {
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  TestClient client(ReportTo(agent.path(), kNeverDue));
  size_t packets = 0;
  for (const auto end : {Exit, FlushAndExit, AtFork, FlushAndExit}) {
    client.Metric("m")->WithTags({})->Emit({Store(2)});
    end(*client);
    packets += end == FlushAndExit ? 1 : 0;
    EXPECT_TRUE(agent.WaitForPackets(packets));
    client->Init(new TestConfiger({}, kNeverDue), new TestVendor({agent.path()}), nullptr, {});
  }
}

// Looks, as it is told to stop, for threads that might still use it.
class WatchfulConfiger final : public MConfigerImplBase {
 public:
  explicit WatchfulConfiger(std::atomic<bool>* alone) : alone_(alone) {}
  void Start() override {}
  void Stop() override {
    alone_->store(WaitFor([this] { return ThreadCount() <= threads_; }));
  }
  std::pair<bool, int> GetTenantInterval(const std::string& /*tenant*/) override { return {}; }
  std::string GetSinkName() override { return ""; }

 private:
  const long threads_ = ThreadCount();
  std::atomic<bool>* const alone_;
};

TEST(ClientTest, StopsTheProviderWhenNoThreadIsLeft) {
  std::thread([] {}).join();  // a sanitizer's own thread comes with the first one and stays
  for (const auto& [name, end] : kEnds) {
    SCOPED_TRACE(name);
    const ScopedLogLevel silent(4);
    std::atomic<bool> alone{false};
    {
      MetricClient client;
      client.Init(new WatchfulConfiger(&alone), new TestVendor({"/tmp/none"}), nullptr, {});
      for (const char* tenant : {"t1", "t2", "t3"}) {
        METRICS::MetricRegistry* registry = nullptr;
        METRICS::MetricRegistryCfg cfg;
        cfg.tenant = tenant;
        ASSERT_EQ(client.CreateRegistry(registry, cfg), ReturnCode::kOk);
      }
      end(client);
    }
    EXPECT_TRUE(alone);
  }
}

TEST(ClientTest, DummiesStandInForVendorAndDiscovery) {
  for (const bool force : {false, true}) {
    METRICS::CoreInitCfg cfg;
    cfg.force_self_monitor = force;
    const ScopedLogLevel silent(4);
    MetricClient client;
    ASSERT_EQ(client.Init(new TestConfiger(), nullptr, nullptr, cfg), ReturnCode::kOk);
    const METRICS::MetricConfiger& configer = *client.configer_;
    EXPECT_EQ(configer.vendor_->GetSenderOutPath(), "/opt/tmp/sock/metric_seqpacket.sock");
    Endpoint endpoint;
    signed char retries = 1;
    EXPECT_TRUE(configer.discovery_->GetOne(endpoint, retries));
    EXPECT_EQ(endpoint.host + ":" + std::to_string(endpoint.port), "127.0.0.1:9867");
    EXPECT_EQ(retries, 0);
    EXPECT_EQ(configer.enable_monitor_, force);
  }
}

TEST(ClientTest, FindsWhatExistsWhateverElseIsAskedFor) {
  TestClient client;
  METRICS::MetricRegistry* const registry = client.Registry("p", "t1", {{"a", "b"}}, 5);
  EXPECT_EQ(client.Registry("p", "t1", {}, 60), registry);
  EXPECT_EQ(registry->FlushInterval(), 5);
  EXPECT_NE(client.Registry("p", "t2"), registry);
  METRICS::Metric* const metric = client.Metric("m", {"x"});
  EXPECT_EQ(client.Metric("m", {"y", "z"}), metric);
  EXPECT_EQ(metric->registry_, registry);

  METRICS::MetricRegistryCfg cfg;
  cfg.prefix = "p";
  for (const auto& [tenant, expected] :
       {std::pair("", ReturnCode::kInvalidString), {"t1", ReturnCode::kTagConflict}}) {
    cfg.tenant = tenant;
    const auto [none, code] = client->CreateMetric(cfg, {"n", {"a"}, {}, {}});
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(code, expected);
  }
}

}  // namespace
}  // namespace tidegate::test

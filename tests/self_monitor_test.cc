#include "metrics/metric_self_monitor.h"

#include <array>
#include <cstring>
#include <set>

#include "metrics/metric_expire_checker.h"
#include "metrics/metric_factory.h"
#include "support/agent_socket.h"
#include "support/environment.h"
#include "testing/test_clock.h"

namespace tidegate::test {
namespace {

using METRICS::Store;
using Packets = AgentSocket::Packets;
using Figures = std::array<double, 3>;  // bytes, metrics, series

// Everything on, with flushes of one second.
TestClientOptions Everything(const std::string& path = "", bool expire = true) {
  return {{}, 1, {path}, {true, expire, false, 5, 1, 5}};
}

// The sums of all numbers that the library reported on itself, by name, type, tags and field. Tags
// that all have in common are left out; where one is missing, the name says so.
std::map<std::string, double> Sums(const Packets& packets) {
  std::map<std::string, double> sums;
  for (const Point& point : PointsOf(packets)) {
    std::string series = point.tenant + " " + point.name + " " + agent::WireTypeName(point.type);
    for (const auto& [key, value] : point.tags) series += " " + key + "=" + value;
    for (const char* common :
         {"inf.metrics inf.tidegate.", " component=quelltd", " language=cpp"}) {
      const size_t at = series.find(common);
      series.replace(at == series.npos ? 0 : at, std::strlen(common), "");
    }
    for (size_t i = 0; i < point.values.size(); ++i) {
      const size_t column = point.indexes.empty() ? i : point.indexes[i];
      sums[series + (point.fields.empty() ? "" : " " + point.fields[column])] += point.values[i];
    }
  }
  return sums;
}

Figures Reported(const Packets& packets, const std::string& cause) {
  auto sums = Sums(packets);
  const std::string series = "sender multi_field cause=" + cause + " tenant=t1 ";
  return {sums[series + "bytes"], sums[series + "metrics"], sums[series + "series"]};
}

Figures Counted(const Packets& packets) {
  Figures figures{};
  for (const auto& [bytes, packet] : packets) {
    figures[0] += static_cast<double>(bytes.size());
    figures[1] += packet.block_count;
    figures[2] += packet.series_count;
  }
  return figures;
}

TEST(SelfMonitorTest, ItsFiguresAreWhatWasReceivedAndWhatWasLost) {
  const TempDir dir;
  AgentSocket own(dir.File("own")), app(dir.File("app"));
  const TestClock clock;
  TestClient client(Everything(own.path()));
  // The sender of the library's own metrics has connected by now.
  client->configer_->vendor_ = std::make_unique<StaticVendor>(StaticVendor::Options{app.path()});
  METRICS::Metric* const metric = client.Metric("m", {"a"});
  const auto emit = [&](const char* a) { metric->WithTags({{"a", a}})->Emit({Store(1)}); };
  emit("1");
  TestClock::Flush();
  ASSERT_TRUE(app.WaitForPackets(1));
  const Figures one = Counted(app.Received());
  for (const char* a : {"1", "2", "3"}) emit(a);
  metric->WithTags({{"unknown", "1"}});
  TestClock::Flush();
  ASSERT_TRUE(app.WaitForPackets(2));
  TestClock::Flush();
  EXPECT_TRUE(own.WaitUntil(
      [&](const auto& packets) { return Reported(packets, "send") == Counted(app.Received()); }));
  app.Stop();
  emit("1");  // the same packet as the first one
  TestClock::Flush();
  TestClock::Flush();
  // A sample that comes after the drain of a flush is in the next one, and `FlushAndExit` makes
  // none where it finds one running.
  const std::string package = "sender.latency timer name=package tenant=t1 counter";
  const std::string emitted = "metric multi_field metric_name=p.m emit.success";
  EXPECT_TRUE(own.WaitUntil([&](const auto& packets) {
    auto sums = Sums(packets);
    return Reported(packets, "drop") == one && sums[package] >= 3 && sums[emitted] >= 5;
  }));
  client->FlushAndExit();
  own.Stop();
  std::map<std::string, double> sums = Sums(own.Received());
  EXPECT_EQ(sums[emitted], 5);
  EXPECT_EQ(sums["metric multi_field metric_name=p.m emit.fail"], 1);
  EXPECT_EQ(sums["sender.fail rate status=Broken pipe tenant=t1"], 1);
  EXPECT_EQ(sums["sender.fail rate status=Transport endpoint is not connected tenant=t1"], 2);
  EXPECT_EQ(sums[package], 3);
  EXPECT_GE(sums["sender.latency timer name=tenant tenant=inf.metrics counter"], 3);
  EXPECT_GE(sums["metric multi_field metric_name=inf.tidegate.metric cache.mem"], 3);
  EXPECT_GE(sums["metric multi_field metric_name=inf.tidegate.version cache.series"], 3);
  EXPECT_GE(sums["version gauge sdk_version=1.0.4"], 3);
  std::set<std::string> names;
  for (const auto& [series, sum] : sums) names.insert(series.substr(0, series.find(' ')));
  EXPECT_THAT(names,
              testing::ElementsAre("metric", "sender", "sender.fail", "sender.latency", "version"));
}

TEST(SelfMonitorTest, ItsSeriesOutliveAPassThatErasesEverythingIdle) {
  TestClient client(Everything("", false));
  client.Metric("m")->WithTags({})->Emit({Store(1)});
  std::vector own{client->self_monitor_->statistic_.version_item};
  for (const char* tenant : {"t1", "inf.metrics"}) {
    own.push_back(client.Sender(tenant).statistic_.send_item.Load());
    own.push_back(client.Sender(tenant).statistic_.drop_item.Load());
  }
  METRICS::MetricCollectorFactory& factory = *client->collector_factory_;
  for (const METRICS::CollectorPtr& collector : factory.GetAll()) {
    for (const auto& [key, item] : collector->GetAll()) item->last_update_ = 0;
  }
  for (const auto& item : own) EXPECT_TRUE(WaitFor([&] { return item->last_update_ != 0; }));
  METRICS::MetricExpireChecker checker(&*client);
  checker.Start(10);
  EXPECT_TRUE(WaitFor([&] { return factory.GetCollectorSeriesMap()["p.m"] == 0; }));
  checker.Exit();
  EXPECT_EQ(factory.GetCollectorSeriesMap()["inf.tidegate.version"], 1u);
  EXPECT_EQ(factory.GetCollectorSeriesMap()["inf.tidegate.sender"], 4u);
  for (const auto& item : own) EXPECT_TRUE(item->active_);
}

TEST(SelfMonitorTest, ItsMetricsMayBeRemovedBlockedAndClearedWhileItReports) {
  for (const bool clear : {false, true}) {
    TestClientOptions options = Everything();
    options.core.monitor_interval = 0;
    TestClient client(options);
    METRICS::MetricSelfMonitor& monitor = *client->self_monitor_;
    METRICS::MetricSender& sender = client.Sender("inf.metrics");
    Workers flushes;  // what flush threads do, at a higher rate
    flushes.Start(2, [&](int i) {
      monitor.EmitForSenderLatency("t1", "package", i);
      monitor.EmitForSenderFial("t1", "gone");
      if (i == 0) sender.InitStat();
    });
    client->Block("inf.tidegate", "inf.metrics");
    client->UnBlock("inf.tidegate", "inf.metrics");
    EXPECT_TRUE(WaitFor([&] {
      return client->collector_factory_->GetCollectorSeriesMap()["inf.tidegate.sender.fail"] > 0;
    }));
    if (clear) client->metric_factory_->Clear();
    client->RemoveRegistry("inf.tidegate", "inf.metrics");
    client.Metric("m")->WithTags({})->Emit({Store(1)});
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let all of them meet it
    flushes.Stop();
    EXPECT_EQ(monitor.InitSelfMonitorItem(nullptr, {}), nullptr);
    EXPECT_EQ(client->metric_factory_->GetAllRegistry().size(), 1u) << "that of the service";
  }
}

}  // namespace
}  // namespace tidegate::test

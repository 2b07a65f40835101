#include "support/agent_socket.h"
#include "support/environment.h"
#include "tidegate/metrics.h"

namespace tidegate {
namespace {

using namespace tidegate::test;

TEST(FacadeTest, FirstProgram) {
  const TempDir folder;
  AgentSocket agent(folder.path() + "/s");
  Options options;
  options.service = "shop";
  options.socket_path = agent.path();
  {
    Metrics metrics(options);
    ASSERT_TRUE(metrics) << metrics.Error();
    const Counter requests = metrics.Counter("requests", {"method", "status"});
    ASSERT_TRUE(requests) << requests.Error();
    const std::string method = "get";
    EXPECT_EQ(requests.Add(2, {{"method", method}, {"status", 200}}), ReturnCode::kOk);
    const BoundCounter get = requests.With({{"method", "get"}});
    EXPECT_EQ(get.Add(1), ReturnCode::kOk);
    const GaugeField size("size");
    const RateField hits("hits");
    const Row cache = metrics.Row("cache", {}, {size, hits});
    EXPECT_EQ(cache.Emit({size(64), hits(3)}), ReturnCode::kOk);
    const Timer timer = metrics.Timer("t");
    timer.Observe(std::chrono::seconds(1));
    { const auto scope = timer.Start(); }
    metrics.Histogram("h", {1, 2, 3}).Observe(2.5);
    metrics.Histogram("h", METRICS::HistoUtil::Explicit({1, 2, 3})).Observe(2.5);
  }
  agent.Stop();
  for (const Point& point : agent.Points()) {
    std::printf("%s %zu %g\n", point.name.c_str(), point.tags.size(), point.values.at(0));
  }
}

}  // namespace
}  // namespace tidegate

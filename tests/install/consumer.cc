// What a user's program needs of an installed package: headers, the library, its exported classes.

#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "tidegate/metrics.h"

namespace {

class Settings : public tidegate::MConfigerImplBase {
 public:
  void Start() override {}
  void Stop() override {}
  std::pair<bool, int> GetTenantInterval(const std::string& /*tenant*/) override {
    return {true, 1};
  }
  std::string GetSinkName() override { return {}; }
};

// Derives from an exported class, and sends to nobody.
class Nowhere : public METRICS::DummyVendor {
 public:
  std::string GetSenderOutPath() override { return "/nonexistent/agent.sock"; }
};

}  // namespace

int main() {
  METRICS::g_metricsLogLevel = 255;
  METRICS::SetGlobalResourcesLimit({});
  METRICS::MetricClient client;
  if (client.Init(std::make_unique<Settings>(), std::make_unique<Nowhere>()) !=
      METRICS::ReturnCode::kOk)
    return 1;

  METRICS::MetricRegistryCfg registry;
  registry.tenant = "consumer";
  registry.prefix = "installed";
  METRICS::MetricInstanceCfg definition;
  definition.name = "calls";
  definition.tag_names = {"kind"};
  METRICS::Metric* const metric = client.CreateMetric(registry, definition).metric;
  if (metric == nullptr) return 1;
  const auto emitted = metric->WithTags({{"kind", "plain"}})->Emit({METRICS::IncrCounter(1)});

  // Registries end, and come back, through the client and through its factory alike.
  METRICS::MetricFactory& factory = *client.metric_factory_;
  METRICS::MetricRegistry* found = nullptr;
  const METRICS::ReturnCode codes[] = {factory.GetRegistry(found, "installed", "consumer"),
                                       client.Block("installed", "consumer"),
                                       factory.UnBlock("consumer", "installed"),
                                       factory.Block("consumer", "installed"),
                                       client.UnBlock("installed", "consumer"),
                                       client.RemoveRegistry("installed", "consumer"),
                                       client.CreateRegistry(found, registry),
                                       factory.RemoveRegistry("installed", "consumer")};
  for (const METRICS::ReturnCode refused : codes) {
    if (refused != METRICS::ReturnCode::kOk) return 1;
  }
  client.FlushAndExit();
  std::printf("emitted: %s\n", METRICS::MetricGetErrorCodeStr(emitted));
  return emitted == METRICS::ReturnCode::kOk ? 0 : 1;
}

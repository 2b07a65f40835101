// core_api [SOCKET_PATH]: the layer below the facade: a client, every kind of number, every form of
// metric.

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>

#include "tidegate/metrics.h"

using METRICS::Add;
using METRICS::Incr;
using METRICS::IncrCounter;
using METRICS::IncrMeter;
using METRICS::MetricsType;
using METRICS::Observe;
using METRICS::Stat;
using METRICS::Store;
using METRICS::WithField;
using METRICS::WithSuffix;

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);   // an agent that goes away must not end the service
  METRICS::g_metricsLogLevel = 3;  // of the library's lines on standard output, errors only

  // A flush every 10 seconds; without a path, the agent at the default one.
  tidegate::StaticVendor::Options machine;
  if (argc > 1) machine.socket_path = argv[1];
  METRICS::MetricClient client;
  client.Init(std::make_unique<tidegate::StaticConfiger>(10),
              std::make_unique<tidegate::StaticVendor>(machine));

  METRICS::MetricRegistryCfg registry;
  registry.tenant = "shop";
  registry.prefix = "shop.web";
  registry.flush_interval = 10;
  METRICS::HistoUtil size_bounds = METRICS::HistoUtil::Explicit({0, 256, 1024});
  METRICS::MetricInstanceCfg definition;
  definition.name = "requests";
  definition.tag_names = {"method", "status"};
  definition.histo = &size_bounds;
  const auto made = client.CreateMetric(registry, definition);
  if (made.metric == nullptr) {
    std::fprintf(stderr, "no metric: %s\n", METRICS::MetricGetErrorCodeStr(made.code));
    return 1;
  }
  METRICS::Metric* const requests = made.metric;

  for (int i = 0; i < 100; ++i) {
    requests->WithTags({{"method", "get"}, {"status", "200"}})
        ->Emit({Incr(1), WithSuffix("bytes", IncrCounter(512)), Observe(120.5 + i), Stat(512),
                Add(1), IncrMeter(1), WithSuffix("load", Store(0.5))});
  }
  requests->Emit({{"method", "get"}, {"status", 404}}, Incr(1));

  // A row of declared fields.
  METRICS::MetricInstanceCfg row;
  row.name = "cache";
  row.fields = {{"size", MetricsType::kGauge}, {"hits", MetricsType::kRate}};
  if (METRICS::Metric* const cache = client.CreateMetric(registry, row).metric) {
    cache->WithTags({})->Emit({WithField("size", Store(64)), WithField("hits", Incr(3))});
  }

  // A compatible metric: its tags are named at emission.
  METRICS::MetricRegistry* web = nullptr;
  client.CreateRegistry(web, registry);
  METRICS::MetricRegistry::MetricInitCfg init;
  init.kind = METRICS::MetricCoItemType::kCoItemCompatible;
  init.cfg.name = "workers";
  METRICS::Metric* workers = nullptr;
  if (web->CreateMetric(workers, init) == METRICS::ReturnCode::kOk) {
    workers->SetCompatibleType(MetricsType::kGauge);
    workers->CEmit(4, {"pool", "web"});
  }

  client.FlushAndExit();
}

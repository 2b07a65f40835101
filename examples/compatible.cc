// compatible [SOCKET_PATH]: a metric whose tags are not declared: each emission brings one number
// and its own tags. For code that is being moved over; declared tags are faster and checked.

#include <cstdio>

#include "example.h"

using METRICS::Metric;

int main(int argc, char** argv) {
  tidegate::Metrics metrics(example::OptionsOf("legacy", argc, argv));

  // The facade has no handle for it: one goes to the layer below.
  METRICS::MetricRegistry* registry = nullptr;
  example::Require(metrics.Client().CreateRegistry(registry, example::Registry("legacy")));
  METRICS::MetricRegistry::MetricInitCfg init;
  init.kind = METRICS::MetricCoItemType::kCoItemCompatible;
  init.cfg.name = "jobs";
  Metric* jobs = nullptr;
  example::Require(registry->CreateMetric(jobs, init));
  jobs->SetCompatibleType(METRICS::MetricsType::kCounter);

  jobs->CEmit(1, {"queue", "mail", "result", "sent"});
  jobs->CEmit(2, {"queue", "mail", "result", "sent"});
  jobs->CEmit(1, {"queue", "invoice"});

  metrics.Stop();
  std::printf(
      "look for: counter legacy.jobs{queue=mail,result=sent,slot=0} 3 and "
      "{queue=invoice,slot=0} 1\n");
}

// multi_field [SOCKET_PATH]: numbers that belong together travel as one row.

#include <cstdio>

#include "example.h"

using METRICS::IncrCounter;
using METRICS::MetricsType;
using METRICS::Observe;
using METRICS::Store;
using METRICS::WithField;

int main(int argc, char** argv) {
  METRICS::MetricClient client;
  example::Start(client, argc, argv);

  METRICS::MetricInstanceCfg definition;
  definition.name = "pool";
  definition.tag_names = {"database"};
  definition.fields = {{"open", MetricsType::kGauge},
                       {"queries", MetricsType::kCounter},
                       {"latency", MetricsType::kTimer}};
  METRICS::Metric* const pool = example::MakeMetric(client, "db", definition);

  const auto orders = pool->WithTags({{"database", "orders"}});
  for (int i = 0; i < 10; ++i) {
    orders->Emit({WithField("open", Store(3 + i % 2)), WithField("queries", IncrCounter(1)),
                  WithField("latency", Observe(250 + 10 * i))});
  }
  // By names alone; a row carries the fields that have a value to report.
  pool->WithTags({{"database", "users"}})->EmitMap({{"open", 1}});

  client.FlushAndExit();
  std::printf(
      "look for: multi_field db.pool{database=orders,slot=0} with open=4, queries=10 and the ten "
      "numbers "
      "of\n"
      "          latency; db.pool{database=users} with open=1 alone\n");
}

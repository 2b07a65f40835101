// histogram [SOCKET_PATH]: how many samples fall into each range, and the reason why bounds are
// refused.

#include <cstdio>

#include "example.h"

using METRICS::HistoUtil;
using METRICS::Metric;
using METRICS::Stat;

int main(int argc, char** argv) {
  METRICS::MetricClient client;
  example::Start(client, argc, argv);

  // 256, 512, ... 8192 bytes: each bound begins a bucket, and smaller samples are not counted.
  HistoUtil bounds = HistoUtil::Exponential(256, 2, 6);
  METRICS::MetricInstanceCfg definition;
  definition.name = "sizes";
  definition.histo = &bounds;
  Metric* const sizes = example::MakeMetric(client, "http", definition);
  for (const int size : {300, 400, 700, 9000}) {
    sizes->Emit({}, Stat(size));
  }

  // Bounds that make no sense are refused with the metric, and say why.
  HistoUtil wrong = HistoUtil::Explicit({10, 5});
  definition.name = "wrong";
  definition.histo = &wrong;
  METRICS::g_metricsLogLevel = 4;  // the refusal would print its line
  const auto refused = client.CreateMetric(example::Registry("http"), definition);
  if (refused.metric == nullptr) {
    std::printf("refused as it should be: code %d, %s\n", static_cast<int>(refused.code),
                wrong.Reason().c_str());
  }

  client.FlushAndExit();
  std::printf(
      "look for: multi_field http.sizes.histogram: two samples from 256 on, one each from 512 and "
      "from\n"
      "          8192 on, a sum of 10400 and a count of 4\n");
}

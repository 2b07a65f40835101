// histogram [SOCKET_PATH]: how many samples fall into each range, and the reason why bounds are
// refused.

#include <cstdio>

#include "example.h"

int main(int argc, char** argv) {
  tidegate::Metrics metrics(example::OptionsOf("http", argc, argv));

  // 256, 512, ... 8192 bytes: each bound begins a bucket, and smaller samples are not counted.
  const auto sizes = metrics.Histogram("sizes", METRICS::HistoUtil::Exponential(256, 2, 6));
  for (const int size : {300, 400, 700, 9000}) {
    sizes.Observe(size);
  }

  // Bounds that make no sense: a handle that does nothing, and says why.
  tidegate::SetLogLevel(tidegate::LogLevel::kSilent);  // the refusal would print its line
  const auto wrong = metrics.Histogram("wrong", {10, 5});
  std::printf("refused as it should be: %s\n", wrong.Error().c_str());

  std::printf(
      "look for: multi_field http.sizes: two samples from 256 on, one each from 512 and from\n"
      "          8192 on, a sum of 10400 and a count of 4\n");
}

// How many answers have which size.

#include <prometheus/histogram.h>

#include "task.h"

void RunTask(prometheus::Registry& registry) {
  auto& sizes = prometheus::BuildHistogram()
                    .Name("sizes_bytes")
                    .Help("sizes of the answers")
                    .Register(registry)
                    .Add({}, prometheus::Histogram::BucketBoundaries{256, 1024, 4096});
  for (const int size : {300, 400, 700, 9000}) sizes.Observe(size);
}

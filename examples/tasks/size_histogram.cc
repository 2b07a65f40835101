// How many answers have which size.

#include "task.h"

void RunTask(tidegate::Metrics& metrics) {
  const auto sizes = metrics.Histogram("sizes", {0, 256, 1024, 4096});
  for (const int size : {300, 400, 700, 9000}) sizes.Observe(size);
}

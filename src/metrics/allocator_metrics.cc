#include "metrics/allocator_metrics.h"

#include <malloc.h>

namespace METRICS {
namespace {

#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 33)
using Info = struct mallinfo2;
Info Ask() { return ::mallinfo2(); }
#else
struct Info {
  size_t arena, ordblks, smblks, hblks, hblkhd, uordblks, fordblks, keepcost;
};
Info Ask() { return {}; }
#endif

}  // namespace

bool AllocatorMetrics::CanSay() {
  const Info info = Ask();
  return info.arena != 0 || info.hblkhd != 0;
}

AllocatorMetrics::AllocatorMetrics(tidegate::Metrics& metrics)
    : used_(metrics.Gauge("allocator.used_bytes").With({})),
      free_(metrics.Gauge("allocator.free_bytes").With({})),
      heap_(metrics.Gauge("allocator.heap_bytes").With({})),
      mapped_(metrics.Gauge("allocator.mapped_bytes").With({})),
      releasable_(metrics.Gauge("allocator.releasable_bytes").With({})),
      free_chunks_(metrics.Gauge("allocator.free_chunks").With({})),
      mapped_chunks_(metrics.Gauge("allocator.mapped_chunks").With({})) {}

void AllocatorMetrics::Report() {
  const Info info = Ask();
  used_.Set(info.uordblks + info.hblkhd);
  free_.Set(info.fordblks);
  heap_.Set(info.arena);
  mapped_.Set(info.hblkhd);
  releasable_.Set(info.keepcost);
  free_chunks_.Set(info.ordblks + info.smblks);
  mapped_chunks_.Set(info.hblks);
}

}  // namespace METRICS

#pragma once

#include "tidegate/service_metrics.h"

namespace METRICS {

/// The numbers that the C library's allocator has of its memory, as gauges. docs/guide.md lists
/// them.
///
/// `Report` is called by one thread at a time, once per interval. Takes the locks of the
/// allocator's arenas one after the other, and goes through their free chunks. Allocates nothing.
class AllocatorMetrics {
 public:
  /// Whether the allocator of this process can say: not where the C library has no `mallinfo2`, or
  /// something else has taken its allocator's place.
  static bool CanSay();

  explicit AllocatorMetrics(tidegate::Metrics& metrics);

  void Report();

 private:
  tidegate::BoundGauge used_, free_, heap_, mapped_, releasable_, free_chunks_, mapped_chunks_;
};

}  // namespace METRICS

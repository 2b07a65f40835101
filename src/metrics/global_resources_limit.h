#pragma once

#include <cstdint>

#include "util/metric_export.h"

namespace METRICS {

/// Process-wide limits.
struct GlobalResourcesLimit {
  /// If not zero, the limit of metrics per registry, before the environment variable
  /// METRICS_MAX_METRICS_PER_REGISTRY.
  uint64_t max_metrics_per_registry = 0;
};

/// The one instance, zero at load. Set it by `SetGlobalResourcesLimit`.
extern METRICS_API GlobalResourcesLimit g_global_resources_limit;

/// Sets the limits. Only the first call in the life of the process counts; safe from any thread,
/// and meant for the time before the first metric.
METRICS_API void SetGlobalResourcesLimit(const GlobalResourcesLimit& limit);

/// The limits as they are now: the one instance. Any thread.
METRICS_API const GlobalResourcesLimit& GetGlobalResourcesLimit();

}  // namespace METRICS

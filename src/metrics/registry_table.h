#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "tidegate/metric_tag.h"
#include "util/logging_lock.h"

namespace METRICS {

class Metric;

/// The part of a registry that changes, and the lock that guards it.
struct RegistryTable {
  LoggingRwLock rwlock_;
  std::vector<tidegate::MetricTag> tags_ METRICS_GUARDED_BY(rwlock_);  ///< merged, sorted by key
  /// By name without prefix.
  std::unordered_map<std::string, std::shared_ptr<Metric>> metrics_ METRICS_GUARDED_BY(rwlock_);
};

}  // namespace METRICS

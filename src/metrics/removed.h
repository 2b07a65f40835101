#pragma once

#include <memory>
#include <vector>

#include "util/taken_entries.h"

namespace METRICS {

class Metric;
class MetricRegistry;

/// What left the tables of registries and metrics under their locks, to be destroyed without them:
/// a million series take a tenth of a second. The series go first, then the metrics, whose
/// registries outlive them.
struct Removed {
  std::vector<std::shared_ptr<MetricRegistry>> registries;
  std::vector<std::shared_ptr<Metric>> metrics;
  std::vector<TakenEntries> series;
};

}  // namespace METRICS

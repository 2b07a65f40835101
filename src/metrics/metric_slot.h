#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "metrics/bound_series.h"
#include "metrics/metric.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

/// What the handles of one metric share: the way to the metric while it takes emissions.
///
/// The metric that `metric` has named is good for as long as the slot, whatever has become of it.
struct MetricSlot {
  std::atomic<Metric*> metric{nullptr};  ///< null: emissions are refused
};

/// The same for the handles of one bound series. Never names nothing: a series that is not bound
/// takes emissions, and refuses them.
struct SeriesSlot {
  std::atomic<BoundSeries*> series;  ///< not owned
};

/// Why the handles of a slot, which may be null, do nothing; empty while they work. Good for as
/// long as the slot.
METRICS_API const std::string& ErrorOf(const MetricSlot* slot);
METRICS_API const std::string& ErrorOf(const SeriesSlot& slot);
/// What an emission answers where the slot has no metric.
METRICS_API ReturnCode RefusalOf(const MetricSlot* slot);

/// Binds a series, also after a block and in the child of a fork. Never null.
METRICS_API std::shared_ptr<SeriesSlot> BindSlot(const std::shared_ptr<MetricSlot>& slot,
                                                 BoundSeries::Tags tags, const std::string& name,
                                                 MetricsType type);

/// The slot of handles that are bound to nothing. Never destroyed.
extern METRICS_API SeriesSlot g_no_series;

}  // namespace METRICS

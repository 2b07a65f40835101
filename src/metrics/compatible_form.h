#pragma once

#include <optional>

#include "metrics/flush_job.h"
#include "metrics/flush_packets.h"
#include "metrics/metric_collector_item.h"
#include "metrics/series_walk.h"
#include "metrics/suffix_blocks.h"
#include "util/metric_common.h"

namespace METRICS {

/// The forms of compatible metrics: one block per metric and packet where a series reports a single
/// number or row, or the blocks of suffixed metrics. Their tag names come with each series. Used by
/// one thread at a time; keeps its memory from flush to flush.
class CompatibleForm {
 public:
  /// `packets` outlives the form.
  explicit CompatibleForm(FlushPackets& packets) : packets_(packets) {}

  /// Drains the cells of `series`, a walk that has begun, and writes their reports.
  void Pack(SeriesWalk& series, const FlushJob& job);

 private:
  void EncodeCurrentCompatibleMetricHeader(MetricsType type, const FlushJob& job);
  void EncodeCompatible(MetricsType type, SeriesWalk& series, const FlushJob& job);
  void EncodeCompatibleWithSuffix(MetricsType type, SeriesWalk& series, const FlushJob& job);
  /// Writes the point of the interval before, if cells of `type` have one.
  void EncodeExtendCompatibleSeries(MetricsType type, const MetricCollectorItem& item,
                                    double prev_value, const FlushJob& job);

  /// The blocks of the metric being packed, made when they are first asked for.
  const SuffixBlocks& BlocksOf(MetricsType type, const FlushJob& job);

  FlushPackets& packets_;
  std::optional<SuffixBlocks> blocks_;
};

}  // namespace METRICS

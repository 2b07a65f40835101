#pragma once

#include "metrics/flush_job.h"
#include "metrics/flush_packets.h"
#include "metrics/metric_collector_item.h"
#include "metrics/series_items.h"
#include "metrics/series_tags.h"
#include "metrics/series_walk.h"

namespace METRICS {

/// The form of metrics with a row of fields: one block per metric and packet, whose records name by
/// index which columns they carry. Used by one thread at a time; keeps its memory from flush to
/// flush.
class RowForm {
 public:
  /// `packets` outlives the form.
  explicit RowForm(FlushPackets& packets) : packets_(packets) {}

  /// Drains the rows of `series`, a walk that has begun, and writes their reports.
  void Pack(SeriesWalk& series, const FlushJob& job);

 private:
  void EncodeMultiFieldSeries(MetricCollectorItem& item, const FlushJob& job);
  void EncodeMultiFieldExtendSeries(const FlushJob& job);

  FlushPackets& packets_;
  SeriesTags tags_;
  MultiFieldSendRes row_;  ///< of the series being packed
};

}  // namespace METRICS

#pragma once

#include <cstdint>
#include <vector>

#include "metrics/flush_job.h"
#include "metrics/flush_packets.h"
#include "metrics/metric_collector.h"
#include "metrics/series_items.h"
#include "metrics/series_tags.h"

namespace METRICS {

/// The form of metrics with a row of fields: one block per metric and packet, whose records name by
/// index which columns they carry. Used by one thread at a time; keeps its memory from flush to
/// flush.
class RowForm {
 public:
  /// `packets` outlives the form.
  explicit RowForm(FlushPackets& packets) : packets_(packets) {}

  /// Drains the rows of `series`, which it lets go of, and writes their reports.
  void Pack(std::vector<Series>& series, const FlushJob& job);

 private:
  void EncodeMultiFieldSeries(const Series& series, const FlushJob& job);
  void EncodeMultiFieldExtendSeries(const FlushJob& job);

  FlushPackets& packets_;
  SeriesTags tags_;
  MultiFieldSendRes row_;  ///< of the series being packed
};

}  // namespace METRICS

#pragma once

#include <cstddef>

#include "metrics/cell_table.h"
#include "metrics/flush_job.h"
#include "metrics/flush_packets.h"
#include "metrics/series_tags.h"
#include "metrics/series_walk.h"
#include "metrics/suffix_blocks.h"

namespace METRICS {

/// The form of suffixed metrics: each number that a cell reports is a block of its own, or, for
/// cells that report a row of numbers, one block whose columns name them. Used by one thread at a
/// time; keeps its memory from flush to flush.
class SuffixedForm {
 public:
  /// `packets` outlives the form.
  explicit SuffixedForm(FlushPackets& packets) : packets_(packets) {}

  /// Drains the cells of `series`, a walk that has begun, and writes their reports.
  void Pack(SeriesWalk& series, const FlushJob& job);

 private:
  /// `index` is that of the cell among those of its series.
  void EncodeMetricWithSuffix(const FlushJob& job, const CellRef& ref, size_t index);

  FlushPackets& packets_;
  SeriesTags tags_;
  SuffixBlockTable blocks_;
};

}  // namespace METRICS

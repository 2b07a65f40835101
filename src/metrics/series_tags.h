#pragma once

#include <string_view>

#include "codec/pack.h"
#include "metrics/flush_job.h"
#include "metrics/metric_collector_item.h"
#include "util/metric_size_limits.h"

namespace METRICS {

/// The tags of the series being packed, of a metric with declared tags. Keeps its memory from
/// series to series.
class SeriesTags {
 public:
  /// Turns to the series of `item`, which lives as long as it is asked for.
  void Begin(MetricCollectorItem& item, const FlushJob& job) {
    item_ = &item;
    job_ = &job;
    cur_tag_kv_ = {};
  }
  /// Its tags in packet form, encoded when they are first asked for. Empty, with an Error line at
  /// each call, where there are not as many as its metric has declared.
  std::string_view EncodeCurrentTagKV() {
    return cur_tag_kv_.data() != nullptr ? cur_tag_kv_ : EncodeTagKV();
  }
  /// Gives that line at once, and not again for this series.
  void ReportMisfit();

 private:
  std::string_view EncodeTagKV();
  bool Fits() const;

  MetricCollectorItem* item_ = nullptr;
  const FlushJob* job_ = nullptr;
  std::string_view cur_tag_kv_;  ///< null: not encoded yet
  lattice_kit::codec::Pack tag_scratch_{kTagScratchBytes};
};

}  // namespace METRICS

#include "metrics/row_form.h"

#include "metrics/metric_parts.h"
#include "util/metric_log.h"

namespace METRICS {
namespace {

BlockHeader HeaderOf(const MetricParts& metric, int64_t timestamp) {
  return {MetricsType::kMultiField, metric.name_hash_, metric.name_, metric.GetCodecFieldInfo(),
          timestamp};
}

}  // namespace

void RowForm::Pack(SeriesWalk& series, const FlushJob& job) {
  // Opened whether or not a series has something to say.
  packets_.Current().OpenBlock(HeaderOf(job.metric, job.boundary), true);
  series.EachSeries([&](MetricCollectorItem& item, bool more) {
    packets_.DrainAndWrite([&] { EncodeMultiFieldSeries(item, job); });
    packets_.EndUnit(more);
  });
  packets_.CloseBlocks();
}

void RowForm::EncodeMultiFieldSeries(MetricCollectorItem& item, const FlushJob& job) {
  static_cast<MetricFieldArray&>(item).Drain(job.metric.GetFieldInfo(), row_);
  if (row_.values.empty()) {
    return;
  }
  tags_.Begin(item, job);
  packets_.Current().PutRecord(tags_.EncodeCurrentTagKV(), row_.value_fields, row_.values);
  if (!row_.prev_values.empty()) {
    EncodeMultiFieldExtendSeries(job);
  }
}

void RowForm::EncodeMultiFieldExtendSeries(const FlushJob& job) {
  packets_.WritePrevious([&](MetricDataPack& pack) {
    if (!pack.HasOpenBlock()) {
      pack.OpenBlock(HeaderOf(job.metric, job.PreviousBoundary()), false);
    }
    pack.PutRecord(tags_.EncodeCurrentTagKV(), row_.prev_fields, row_.prev_values);
    METRICS_LOG_DEBUG("Pack %ld zeros for counter/meter.\n",
                      static_cast<long>(row_.prev_values.size()));
  });
}

}  // namespace METRICS

// The form of metrics with a row of fields: one block per metric and packet, whose records name by
// index which columns they carry.

#include "metrics/metric_encoder.h"
#include "metrics/metric_parts.h"
#include "metrics/packet_sender.h"
#include "util/metric_log.h"

namespace METRICS {

void MetricEncoder::PackMultiFeildMetric(std::vector<Series>& items) {
  // Opened whether or not a series has something to say.
  EncodeRowHeader(pack_, sender_->last_flush_ts_, true);
  for (size_t k = 0; k < items.size(); ++k) {
    AdvanceTo(items, k);
    if (!items[k].second->active_.load(std::memory_order_relaxed)) {
      continue;
    }
    DrainAndWrite([&] { EncodeMultiFieldSeries(items[k]); });
    ContinueBlockIfSent(k + 1 == items.size());
  }
  RefillMetricHeader(pack_);
  RefillMetricHeader(prev_pack_);
}

void MetricEncoder::EncodeRowHeader(MetricDataPack& pack, long timestamp, bool save) {
  EncodeMetricHeader(pack, MetricsType::kMultiField, metric_->name_hash_, metric_->name_,
                     metric_->GetCodecFieldInfo(), timestamp, save);
}

void MetricEncoder::ContinueBlockIfSent(bool last) {
  if (!CheckMsgLenAndSend(pack_, true)) {
    return;
  }
  RePackFromRegistry(pack_);
  if (!last) {
    CopyFromCurrentMetricHeader(pack_);
  }
}

void MetricEncoder::EncodeMultiFieldSeries(const Series& series) {
  static_cast<MetricFieldArray&>(*series.second).Drain(metric_->GetFieldInfo(), row_);
  if (row_.values.empty()) {
    return;
  }
  BeginSeries(series);
  EncodeOneSeriesValue(pack_, EncodeCurrentTagKV(), row_.value_fields, row_.values);
  if (!row_.prev_values.empty()) {
    EncodeMultiFieldExtendSeries(row_);
  }
}

void MetricEncoder::EncodeMultiFieldExtendSeries(const MultiFieldSendRes& res) {
  if (prev_pack_.series_count == 0) {
    RePackFromRegistry(prev_pack_);
  }
  if (prev_pack_.block_series == 0) {
    EncodeRowHeader(prev_pack_, sender_->last_flush_ts_ - interval_, false);
  }
  EncodeOneSeriesValue(prev_pack_, EncodeCurrentTagKV(), res.prev_fields, res.prev_values);
  METRICS_LOG_DEBUG("Pack %ld zeros for counter/meter.\n",
                    static_cast<long>(res.prev_values.size()));
  CheckMsgLenAndSend(prev_pack_, true);
}

}  // namespace METRICS

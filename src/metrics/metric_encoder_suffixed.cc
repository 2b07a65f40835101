// The form of suffixed metrics: each number that a cell reports is a block of its own, or, for
// cells that report a row of numbers, one block whose columns name them.

#include <utility>

#include "codec/fnv_hash.h"
#include "metrics/impl/metric_multi_field_impl.h"
#include "metrics/metric.h"
#include "metrics/metric_encoder.h"
#include "metrics/metric_sender.h"
#include "util/metric_log.h"

namespace METRICS {

using lattice_kit::codec::FieldInfo;
using lattice_kit::codec::StrFNVHash;

namespace {

using SuffixTable = std::vector<std::string>;

// Never destroyed: a flush may still run while the process exits.
SuffixTable& TimerSuffixes() {
  static SuffixTable& table = *new SuffixTable{"min",   "max",   "avg",   "sum",   "counter",
                                               "pct50", "pct90", "pct95", "pct99", "pct999"};
  return table;
}

SuffixTable& MeterSuffixes() {
  static SuffixTable& table = *new SuffixTable{"", "rate"};
  return table;
}

SuffixTable& DeltaCounterSuffixes() {
  static SuffixTable& table = *new SuffixTable{"counter", "rate", "delta"};
  return table;
}

void AppendPart(std::string& tail, const std::string& part) {
  if (!part.empty()) {
    tail += '.';
    tail += part;
  }
}

}  // namespace

std::string& MetricEncoder::ConvertIdxToTimerSuffix(const unsigned long& idx) {
  return TimerSuffixes()[idx];
}

std::string& MetricEncoder::ConvertIdxToMeterSuffix(const unsigned long& idx) {
  return MeterSuffixes()[idx];
}

std::string& MetricEncoder::ConvertIdxToDeltaCounter(const unsigned long& idx) {
  return DeltaCounterSuffixes()[idx];
}

void MetricEncoder::PrepareSuffixTables() {
  TimerSuffixes();
  MeterSuffixes();
  DeltaCounterSuffixes();
}

void MetricEncoder::PackSuffixedMetric(const std::vector<Series>& items) {
  for (const Series& series : items) {
    MetricCollectorItem& item = *series.second;
    if (!item.active_.load(std::memory_order_relaxed)) {
      continue;
    }
    EncodeCurrentTagKV(series.first, item);
    const CellMap fields = item.Fields();
    for (const auto& [suffix, cell] : fields) {
      PackSuffix(suffix, cell);
      if (CheckMsgLenAndSend(pack_, false)) {
        RePackFromRegistry(pack_);
      }
    }
  }
}

void MetricEncoder::PackSuffix(const std::string& suffix, const CellPtr& cell) {
  const MetricsType type = cell->Type();
  switch (type) {
    case MetricsType::kGauge:
    case MetricsType::kRate:
    case MetricsType::kCounter:
      EncodeMetricWithSuffix(cell, suffix, type, 1, nullptr);
      return;
    case MetricsType::kMeter:
      EncodeMetricWithSuffix(cell, suffix, type, kMetricMeterArraySize, &ConvertIdxToMeterSuffix);
      return;
    case MetricsType::kTimer:
      EncodeMetricWithSuffix(cell, suffix, type, kMetricSummaryArraySize, &ConvertIdxToTimerSuffix);
      return;
    case MetricsType::kHistogram:
      EncodeMetricWithSuffix(cell, suffix, type, 0, nullptr);
      return;
    case MetricsType::kDeltaCounter:
      EncodeMetricWithSuffix(cell, suffix, type, kMetricDeltaCounterArrSize,
                             &ConvertIdxToDeltaCounter);
      return;
    case MetricsType::kUnknown:
    case MetricsType::kMultiField:
    case MetricsType::kTypeEnd:
      break;
  }
  METRICS_LOG_ERROR("Sender[%s]Internal Error for Unknown MetricType: %d\n", name_.c_str(),
                    static_cast<int>(type));
}

void MetricEncoder::EncodeMetricWithSuffix(const CellPtr& data, const std::string& suffix,
                                           const MetricsType& type, const unsigned long& array_size,
                                           SuffixOf convert) {
  const SendRes res = data->Send(static_cast<unsigned int>(interval_));
  const long timestamp = sender_->last_flush_ts_;
  if (IsRow(type)) {
    if (!DoPackSuffixToMultiField(pack_, res.values, suffix, type, timestamp)) {
      return;
    }
  } else {
    if (!CheckSendRes(type, res.values, array_size)) {
      return;
    }
    DoPackSuffixMetric(pack_, res.values, suffix, type, convert, timestamp);
  }
  if (res.need_prev && PreviousPointWidth(type) != 0) {
    METRICS_LOG_DEBUG("Pack a prev interval value for counter/meter/deltacounter.\n");
    EncodePreviousInterval(res.prev_value, suffix, type, convert);
  }
}

bool MetricEncoder::IsRow(const MetricsType& type) const {
  return type == MetricsType::kDeltaCounter || type == MetricsType::kHistogram ||
         (type == MetricsType::kTimer && metric_->multi_field_summary_.load());
}

void MetricEncoder::EncodePreviousInterval(double prev_value, const std::string& suffix,
                                           const MetricsType& type, SuffixOf convert) {
  std::vector<double> row(PreviousPointWidth(type), 0.0);
  row.front() = prev_value;
  if (prev_pack_.series_count == 0) {
    RePackFromRegistry(prev_pack_);
  }
  const long timestamp = sender_->last_flush_ts_ - interval_;
  if (type == MetricsType::kDeltaCounter) {
    DoPackSuffixToMultiField(prev_pack_, row, suffix, type, timestamp);
  } else {
    DoPackSuffixMetric(prev_pack_, row, suffix, type, convert, timestamp);
  }
  CheckMsgLenAndSend(prev_pack_, false);
}

void MetricEncoder::DoPackSuffixMetric(MetricDataPack& pack, const std::vector<double>& values,
                                       const std::string& suffix, const MetricsType& type,
                                       SuffixOf convert, long timestamp) {
  // A summary in single numbers is a set of gauges to the receiver.
  const MetricsType wire_type = type == MetricsType::kTimer ? MetricsType::kGauge : type;
  for (unsigned long i = 0; i < values.size(); ++i) {
    std::string tail;
    AppendPart(tail, suffix);
    if (convert != nullptr) {
      AppendPart(tail, convert(i));
    }
    EncodeOneSeriesMetric(pack, wire_type, StrFNVHash(tail, metric_->name_hash_),
                          metric_->name_ + tail, std::string(), cur_tag_kv_, {values[i]},
                          timestamp);
  }
}

std::vector<FieldInfo> MetricEncoder::RowFieldsOf(const MetricsType& type) const {
  std::vector<FieldInfo> fields;
  const std::string no_name;
  if (type == MetricsType::kDeltaCounter) {
    MultiFieldMetricImpl::GenerateDeltaCounterField(fields, no_name);
  } else if (type == MetricsType::kHistogram) {
    MultiFieldMetricImpl::GenerateHistogramField(fields, no_name, metric_->GetHistogram());
  } else {
    MultiFieldMetricImpl::GenerateSummaryField(fields, no_name);
  }
  return fields;
}

bool MetricEncoder::DoPackSuffixToMultiField(MetricDataPack& pack,
                                             const std::vector<double>& values,
                                             const std::string& suffix, const MetricsType& type,
                                             long timestamp) {
  if (values.empty()) {
    return false;
  }
  const std::vector<FieldInfo> fields = RowFieldsOf(type);
  if (!CheckSendRes(type, values, fields.size())) {
    return false;
  }
  std::string tail;
  AppendPart(tail, suffix);
  EncodeOneSeriesMetric(pack, type, StrFNVHash(tail, metric_->name_hash_), metric_->name_ + tail,
                        fields, cur_tag_kv_, values, timestamp);
  return true;
}

}  // namespace METRICS

#include "metrics/impl/metric_multi_field_impl.h"

#include "metrics/metric.h"
#include "metrics/metric_data.h"
#include "metrics/metric_encoder.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"

namespace METRICS {

using lattice_kit::codec::kCodecValueDouble;

namespace {

using Columns = MultiFieldMetricImpl::Columns;

void AppendEntries(Columns& out, const std::string& name, unsigned long count,
                   MetricEncoder::SuffixOf entry_of) {
  for (unsigned long i = 0; i < count; ++i) {
    const std::string& entry = entry_of(i);
    std::string column = name;
    if (!name.empty() && !entry.empty()) {
      column += '.';
    }
    column += entry;
    out.emplace_back(std::move(column), kCodecValueDouble);
  }
}

void AppendColumnsOf(const MetricFieldInfo& field, Columns& out) {
  switch (field.type) {
    case MetricsType::kGauge:
    case MetricsType::kRate:
    case MetricsType::kCounter:
      MultiFieldMetricImpl::GenerateSingleField(out, field.name);
      return;
    case MetricsType::kMeter:
      MultiFieldMetricImpl::GenerateMeterField(out, field.name);
      return;
    case MetricsType::kTimer:
      MultiFieldMetricImpl::GenerateSummaryField(out, field.name);
      return;
    case MetricsType::kHistogram:
      MultiFieldMetricImpl::GenerateHistogramField(out, field.name, field.bounds);
      return;
    case MetricsType::kDeltaCounter:
      MultiFieldMetricImpl::GenerateDeltaCounterField(out, field.name);
      return;
    case MetricsType::kUnknown:
    case MetricsType::kMultiField:
    case MetricsType::kTypeEnd:
      break;
  }
  METRICS_LOG_ERROR("Internal Error for Unknown MetricType: %d\n", static_cast<int>(field.type));
}

}  // namespace

MultiFieldMetricImpl::~MultiFieldMetricImpl() = default;

void MultiFieldMetricImpl::InitField(const std::vector<MetricFieldCfg>&& fields) {
  field_infos_.reserve(fields.size());
  Columns columns;
  for (const MetricFieldCfg& declared : fields) {
    MetricFieldInfo field{declared.name, declared.type, {}};
    if (field.type == MetricsType::kHistogram) {
      if (declared.histo != nullptr) {
        field.bounds = declared.histo->bounds;
      } else {
        METRICS_LOG_WARN("Invalid Histogram Field Config with name: %s\n", field.name.c_str());
      }
    }
    AppendColumnsOf(field, columns);
    field_infos_.push_back(std::move(field));
  }
  codec_field_info_ = MetricEncoder::PrePack(columns);
  codec_field_num_ = static_cast<uint32_t>(columns.size());
  SettleSharedNames();
}

void MultiFieldMetricImpl::SettleSharedNames() {
  Owners owners;
  for (const MetricFieldInfo& field : field_infos_) {
    owners[field.name] = &field;
  }
  if (owners.size() == field_infos_.size() || FitsColumns(owners)) {
    return;
  }
  for (MetricFieldInfo& field : field_infos_) {
    field.reports = owners[field.name] == &field;
  }
}

bool MultiFieldMetricImpl::FitsColumns(const Owners& owners) const {
  uint32_t end = 0;
  uint32_t previous_end = 0;  // of the points of the interval before
  for (const MetricFieldInfo& field : field_infos_) {
    const MetricFieldInfo& owner = *owners.at(field.name);
    end += ColumnsOf(owner.type, owner.bounds.size());
    const uint32_t width = PreviousPointWidth(field.type);
    if (width == 0 || PreviousPointWidth(owner.type) == 0) {
      continue;
    }
    if (end < previous_end + width) {
      return false;
    }
    previous_end = end;
  }
  return end <= codec_field_num_;
}

void MultiFieldMetricImpl::GenerateSingleField(Columns& out, const std::string& name) {
  out.emplace_back(name, kCodecValueDouble);
}

void MultiFieldMetricImpl::GenerateMeterField(Columns& out, const std::string& name) {
  AppendEntries(out, name, kMetricMeterArraySize, &MetricEncoder::ConvertIdxToMeterSuffix);
}

void MultiFieldMetricImpl::GenerateSummaryField(Columns& out, const std::string& name) {
  AppendEntries(out, name, kMetricSummaryArraySize, &MetricEncoder::ConvertIdxToTimerSuffix);
}

void MultiFieldMetricImpl::GenerateDeltaCounterField(Columns& out, const std::string& name) {
  AppendEntries(out, name, kMetricDeltaCounterArrSize, &MetricEncoder::ConvertIdxToDeltaCounter);
}

void MultiFieldMetricImpl::GenerateHistogramField(Columns& out, const std::string& name,
                                                  const std::vector<double>& bounds) {
  const std::string prefix = name.empty() ? "hist:" : "hist:" + name + ":";
  for (const double bound : bounds) {
    out.emplace_back(prefix + "b-" + FormatFixed(bound), kCodecValueDouble);
  }
  out.emplace_back(prefix + "sum", kCodecValueDouble);
  out.emplace_back(prefix + "count", kCodecValueDouble);
}

}  // namespace METRICS

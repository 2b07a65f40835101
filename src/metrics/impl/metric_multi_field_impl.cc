#include "metrics/impl/metric_multi_field_impl.h"

#include <utility>

#include "metrics/cell_kinds.h"
#include "metrics/histo_util.h"
#include "util/metric_log.h"

namespace METRICS {

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
    AppendColumns(columns, field.type, field.name, field.bounds);
    field_infos_.push_back(std::move(field));
  }
  codec_field_info_ = lattice_kit::codec::PackFields(columns);
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
    end += KindOf(owner.type).Numbers(owner.bounds.size());
    const uint32_t width = KindOf(field.type).previous;
    if (width == 0 || KindOf(owner.type).previous == 0) {
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
  AppendColumns(out, MetricsType::kGauge, name, {});
}

void MultiFieldMetricImpl::GenerateMeterField(Columns& out, const std::string& name) {
  AppendColumns(out, MetricsType::kMeter, name, {});
}

void MultiFieldMetricImpl::GenerateSummaryField(Columns& out, const std::string& name) {
  AppendColumns(out, MetricsType::kTimer, name, {});
}

void MultiFieldMetricImpl::GenerateDeltaCounterField(Columns& out, const std::string& name) {
  AppendColumns(out, MetricsType::kDeltaCounter, name, {});
}

void MultiFieldMetricImpl::GenerateHistogramField(Columns& out, const std::string& name,
                                                  const std::vector<double>& bounds) {
  AppendColumns(out, MetricsType::kHistogram, name, bounds);
}

}  // namespace METRICS

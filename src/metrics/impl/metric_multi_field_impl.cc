#include "metrics/impl/metric_multi_field_impl.h"

#include <string_view>
#include <utility>

#include "metrics/cell_kinds.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"

namespace METRICS {

using lattice_kit::codec::kCodecValueDouble;

namespace {

using Columns = MultiFieldMetricImpl::Columns;

/// The columns of a field whose numbers have names of their own.
void AppendNumbers(Columns& out, const std::string& field, MetricsType type) {
  const CellKind& kind = KindOf(type);
  for (uint32_t i = 0; i < kind.numbers; ++i) {
    const std::string_view number = kind.names[i];
    std::string column = field;
    if (!field.empty() && !number.empty()) {
      column += '.';
    }
    column += number;
    out.emplace_back(std::move(column), kCodecValueDouble);
  }
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
    AppendColumns(columns, field);
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

void MultiFieldMetricImpl::AppendColumns(Columns& out, const MetricFieldInfo& field) {
  const CellKind* const kind = FindKind(field.type);
  if (kind == nullptr) {
    METRICS_LOG_ERROR("Internal Error for Unknown MetricType: %d\n", static_cast<int>(field.type));
  } else if (kind->per_bound) {
    GenerateHistogramField(out, field.name, field.bounds);
  } else {
    AppendNumbers(out, field.name, field.type);
  }
}

void MultiFieldMetricImpl::GenerateSingleField(Columns& out, const std::string& name) {
  out.emplace_back(name, kCodecValueDouble);
}

void MultiFieldMetricImpl::GenerateMeterField(Columns& out, const std::string& name) {
  AppendNumbers(out, name, MetricsType::kMeter);
}

void MultiFieldMetricImpl::GenerateSummaryField(Columns& out, const std::string& name) {
  AppendNumbers(out, name, MetricsType::kTimer);
}

void MultiFieldMetricImpl::GenerateDeltaCounterField(Columns& out, const std::string& name) {
  AppendNumbers(out, name, MetricsType::kDeltaCounter);
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

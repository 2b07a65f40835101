#include "metrics/metric.h"

#include <utility>

#include "metrics/impl/metric_compatible_impl.h"
#include "metrics/impl/metric_multi_field_impl.h"
#include "metrics/metric_histogram.h"
#include "metrics/metric_registry.h"
#include "util/metric_data_util.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"

namespace METRICS {

namespace {

constexpr size_t kMaxCompatibleStrings = 510;

MetricFieldValue StatValue(const char* name, MetricsType type, unsigned long number) {
  MetricFieldValue value = WithSuffix(name);
  value.type = type;
  value.value.integer = static_cast<int64_t>(number);
  return value;
}

}  // namespace

Metric::Metric(const std::string& name, MetricRegistry* registry, MetricCoItemType kind)
    : MetricParts(name, registry, kind), registry_(registry) {}

Metric::~Metric() { registry_ = nullptr; }

ReturnCode Metric::Init(const std::vector<std::string>&& tag_names,
                        const std::vector<tidegate::MetricTag>&& const_tags,
                        const std::vector<MetricFieldCfg>&& fields, HistoUtilBase* histo) {
  impl_ = MakeImpl(std::move(tag_names));
  if (impl_ == nullptr) {
    return ReturnCode::kInternalError;
  }
  impl_parts_ = impl_.get();
  if (histo != nullptr) {
    impl_->InitHisto(*histo);
  }
  impl_->InitField(std::move(fields));
  tags_ = const_tags;
  std::vector<tidegate::MetricTag> all_tags = const_tags;
  const std::vector<tidegate::MetricTag>& inserted = registry_->InsertedTagsLocked();
  all_tags.insert(all_tags.end(), inserted.begin(), inserted.end());
  impl_->PrepareSendTagKV(all_tags);
  impl_->PrepareTagIdx();
  return impl_->InitCollector();
}

std::unique_ptr<MetricImpl> Metric::MakeImpl(const std::vector<std::string>&& tag_names) {
  const std::string& tenant = registry_->Tenant();
  switch (kind_) {
    case MetricCoItemType::kCoItemSuffix:
      return std::make_unique<SuffixedMetricImpl>(tenant, name_, this, std::move(tag_names));
    case MetricCoItemType::kCoItemField:
      return std::make_unique<MultiFieldMetricImpl>(tenant, name_, this, std::move(tag_names));
    case MetricCoItemType::kCoItemCompatible:
      return std::make_unique<MetricCompatibleImpl>(tenant, name_, this, std::move(tag_names));
    case MetricCoItemType::kCoItemUnknown:
      break;
  }
  return nullptr;
}

ReturnCode Metric::SetHistogram(HistoUtilBase* histo) {
  if (histo == nullptr) {
    return ReturnCode::kNullptr;
  }
  if (kind_ != MetricCoItemType::kCoItemSuffix) {
    return ReturnCode::kNotSupported;
  }
  const bool unset = GetHistogram().empty();
  if (unset && !CheckBounds(*histo)) {
    METRICS_LOG_CODE(ReturnCode::kMaxHistoBucket);
    return ReturnCode::kMaxHistoBucket;
  }
  if (!unset || !static_cast<SuffixedMetricImpl&>(*impl_).TakeBounds(histo->bounds)) {
    METRICS_LOG_WARN("Reset Histogram is NOT allowed.\n");
    return ReturnCode::kNotSupported;
  }
  return ReturnCode::kOk;
}

const std::array<std::string, 10>& Metric::GetCompatibleFieldInfo() {
  return MetricCompatibleImpl::timer_field_info_;
}

ReturnCode Metric::CEmit(double value, std::vector<std::string>&& tag_pairs) {
  if (kind_ != MetricCoItemType::kCoItemCompatible) {
    return ReturnCode::kNotSupported;
  }
  if (tag_pairs.size() > kMaxCompatibleStrings || tag_pairs.size() % 2 != 0) {
    METRICS_LOG_CODE(ReturnCode::kMaxTagPair);
    return ReturnCode::kMaxTagPair;
  }
  for (size_t i = 0; i < tag_pairs.size(); i += 2) {
    if (!IsValidKey(tag_pairs[i]) || !IsValidValue(tag_pairs[i + 1])) {
      METRICS_LOG_CODE(ReturnCode::kInvalidString);
      return ReturnCode::kInvalidString;
    }
  }
  return impl_->CEmit(value, std::move(tag_pairs));
}

ReturnCode Metric::EmitStat(Metric* stat_metric) {
  const std::shared_ptr<MetricCollectorItem> item = stat_metric->WithTags({{"metric_name", name_}});
  std::vector<MetricFieldValue> values;
  values.reserve(4);  // nothing is counted here that could not be told for want of memory
  // Series that are shared with another metric are counted there, whether that is removed or not.
  const std::shared_ptr<MetricParts>& owner = impl_->CollectorOwner();
  MetricParts& counted = owner == nullptr ? *this : *owner;
  unsigned long fails = GetStatValue(emit_fail_);
  if (owner != nullptr) {
    fails += GetStatValue(owner->emit_fail_);
  }
  values.push_back(StatValue("cache.series", MetricsType::kGauge, counted.cache_series_.load()));
  values.push_back(StatValue("cache.mem", MetricsType::kGauge, counted.cache_mem_.load()));
  values.push_back(
      StatValue("emit.success", MetricsType::kRate, GetStatValue(counted.emit_success_)));
  values.push_back(StatValue("emit.fail", MetricsType::kRate, fails));
  return item->Emit(std::move(values));
}

}  // namespace METRICS

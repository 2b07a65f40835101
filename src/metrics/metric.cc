#include "metrics/metric.h"

#include <utility>

#include "codec/fnv_hash.h"
#include "metrics/metric_registry.h"
#include "util/metric_data_util.h"
#include "util/metric_log.h"

namespace METRICS {

using lattice_kit::codec::kFNVOffsetBasis;
using lattice_kit::codec::StrFNVHash;

namespace {

MetricFieldValue StatValue(const char* name, MetricsType type, unsigned long number) {
  MetricFieldValue value = WithSuffix(name);
  value.type = type;
  value.value.integer = static_cast<int64_t>(number);
  return value;
}

}  // namespace

Metric::Metric(const std::string& name, MetricRegistry* registry, MetricCoItemType kind)
    : name_(name),
      name_hash_(StrFNVHash(name, kFNVOffsetBasis)),
      registry_(registry),
      kind_(kind),
      registry_ref_(registry->WeakSelf()) {}

Metric::~Metric() { registry_ = nullptr; }

ReturnCode Metric::Init(const std::vector<std::string>&& tag_names,
                        const std::vector<tidegate::MetricTag>&& const_tags,
                        const std::vector<MetricFieldCfg>&& /*fields*/, HistoUtilBase* histo) {
  if (kind_ != MetricCoItemType::kCoItemSuffix) {
    return ReturnCode::kInternalError;
  }
  impl_ =
      std::make_unique<SuffixedMetricImpl>(registry_->Tenant(), name_, this, std::move(tag_names));
  if (histo != nullptr) {
    impl_->InitHisto(*histo);
  }
  tags_ = const_tags;
  std::vector<tidegate::MetricTag> all_tags = const_tags;
  const std::vector<tidegate::MetricTag>& inserted = registry_->InsertedTagsLocked();
  all_tags.insert(all_tags.end(), inserted.begin(), inserted.end());
  impl_->PrepareSendTagKV(all_tags);
  impl_->PrepareTagIdx();
  return impl_->InitCollector();
}

ReturnCode Metric::SetHistogram(HistoUtilBase* histo) {
  if (histo == nullptr) {
    return ReturnCode::kNullptr;
  }
  if (kind_ != MetricCoItemType::kCoItemSuffix) {
    return ReturnCode::kNotSupported;
  }
  if (!GetHistogram().empty()) {
    METRICS_LOG_WARN("Reset Histogram is NOT allowed.\n");
    return ReturnCode::kNotSupported;
  }
  if (!histo->Check()) {
    METRICS_LOG_CODE(ReturnCode::kMaxHistoBucket);
    return ReturnCode::kMaxHistoBucket;
  }
  impl_->InitHisto(*histo);
  return ReturnCode::kOk;
}

const std::vector<double>& Metric::GetHistogram() {
  return kind_ == MetricCoItemType::kCoItemSuffix
             ? static_cast<SuffixedMetricImpl&>(*impl_).Bounds()
             : NoopHistogram();
}

const std::vector<double>& Metric::NoopHistogram() {
  static const std::vector<double>& none = *new std::vector<double>();
  return none;
}

ReturnCode Metric::EmitStat(Metric* stat_metric) {
  const std::shared_ptr<MetricCollectorItem> item =
      stat_metric->impl_->WithTags({{"metric_name", name_}});
  std::vector<MetricFieldValue> values;
  values.push_back(StatValue("cache.series", MetricsType::kGauge, cache_series_.load()));
  values.push_back(StatValue("cache.mem", MetricsType::kGauge, cache_mem_.load()));
  values.push_back(StatValue("emit.success", MetricsType::kRate, GetStatValue(emit_success_)));
  values.push_back(StatValue("emit.fail", MetricsType::kRate, GetStatValue(emit_fail_)));
  return item->Emit(std::move(values));
}

}  // namespace METRICS

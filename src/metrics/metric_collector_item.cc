#include "metrics/metric_collector_item.h"

#include <ctime>

#include "metrics/metric.h"
#include "util/fork_guard.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"

namespace METRICS {
namespace {

/// What a suffix is accounted for in the statistic beside its name.
constexpr size_t kSuffixPointerBytes = 16;

void EmitNumber(MetricBasicData& cell, const MetricFieldValue& value) {
  if (value.is_integer) {
    cell.Emit(value.value.integer);
  } else {
    cell.Emit(value.value.real);
  }
}

}  // namespace

MetricCollectorItem::~MetricCollectorItem() = default;

ReturnCode MetricCollectorItem::Emit(std::vector<MetricFieldValue>&& values) {
  const std::vector<MetricFieldValue>& by_reference = values;
  return Emit(by_reference);
}

ReturnCode MetricCollectorItem::Emit(const std::vector<MetricFieldValue>& /*values*/) {
  return ReturnCode::kNotSupported;
}

ReturnCode MetricCollectorItem::Emit(double& /*value*/) { return ReturnCode::kNotSupported; }

ReturnCode MetricCollectorItem::EmitMap(const std::unordered_map<std::string, double>& /*values*/) {
  return ReturnCode::kNotSupported;
}

CellMap MetricCollectorItem::Fields() { return NoopFields(); }
CellPtr MetricCollectorItem::Data() { return NoopDataPtr(); }
size_t MetricCollectorItem::Size() { return 0; }
size_t MetricCollectorItem::MemSize() { return 0; }
MetricCoItemType MetricCollectorItem::Type() { return MetricCoItemType::kCoItemUnknown; }

CellPtr MetricCollectorItem::CreateData(const MetricsType& type, bool /*use_ckms*/,
                                        unsigned short /*bucket_count*/) {
  switch (type) {
    case MetricsType::kGauge:
      return std::make_shared<MetricGauge>();
    case MetricsType::kRate:
      return std::make_shared<MetricRate>();
    case MetricsType::kCounter:
      return std::make_shared<MetricCounter>();
    case MetricsType::kMeter:
      return std::make_shared<MetricMeter>();
    case MetricsType::kDeltaCounter:
      return std::make_shared<MetricDeltaCounter>();
    case MetricsType::kTimer:
    case MetricsType::kHistogram:
    case MetricsType::kUnknown:
    case MetricsType::kMultiField:
    case MetricsType::kTypeEnd:
      break;
  }
  METRICS_LOG_ERROR("Internal Error for Unknown MetricType: %d\n", static_cast<int>(type));
  return NoopDataPtr();
}

CellPtr MetricCollectorItem::NoopDataPtr() {
  static const CellPtr& cell = *new CellPtr(std::make_shared<MetricBasicData>());
  return cell;
}

CellMap& MetricCollectorItem::NoopFields() {
  static CellMap& fields = *new CellMap();
  return fields;
}

void MetricCollectorItem::MarkUpdated(size_t count) {
  last_update_.store(::time(nullptr), std::memory_order_relaxed);
  if (!active_.load(std::memory_order_relaxed)) {
    active_.exchange(true);
  }
  metric_->emit_success_.fetch_add(count, std::memory_order_relaxed);
}

MetricSuffixArray::~MetricSuffixArray() {
  if (InForkTeardown() && rwlock_.ReinitAfterFork()) {
    Abandon(suffixes_);
  }
}

ReturnCode MetricSuffixArray::Emit(std::vector<MetricFieldValue>&& values) {
  const std::vector<MetricFieldValue>& by_reference = values;
  return Emit(by_reference);
}

ReturnCode MetricSuffixArray::Emit(const std::vector<MetricFieldValue>& values) {
  for (const MetricFieldValue& value : values) {
    if (EmitToKnown(value)) {
      continue;
    }
    const ReturnCode code = EmitToNew(value);
    if (code != ReturnCode::kOk) {
      return code;
    }
  }
  MarkUpdated(values.size());
  return ReturnCode::kOk;
}

bool MetricSuffixArray::EmitToKnown(const MetricFieldValue& value) {
  const ReadGuard guard(rwlock_);
  const auto found = suffixes_.find(value.name);
  if (found == suffixes_.end()) {
    return false;
  }
  DoEmit(*found, value);
  return true;
}

ReturnCode MetricSuffixArray::EmitToNew(const MetricFieldValue& value) {
  const WriteGuard guard(rwlock_);
  // Another thread may have made the suffix between the two locks.
  if (suffixes_.find(value.name) == suffixes_.end()) {
    const ReturnCode code = CreateSuffix(value.name, value.type);
    if (code != ReturnCode::kOk) {
      metric_->emit_fail_.fetch_add(1, std::memory_order_relaxed);
      METRICS_LOG_CODE(code);
      return code;
    }
  }
  DoEmit(*suffixes_.find(value.name), value);
  return ReturnCode::kOk;
}

ReturnCode MetricSuffixArray::CreateSuffix(const std::string& name, const MetricsType& type) {
  if (!IsValidKeyOrEmpty(name)) {
    METRICS_LOG_CODE(ReturnCode::kInvalidString);
    return ReturnCode::kInvalidString;
  }
  const size_t buckets = type == MetricsType::kHistogram ? metric_->GetHistogram().size() : 0;
  suffixes_[name] = CreateData(type, metric_->use_ckms_.load(std::memory_order_relaxed),
                               static_cast<unsigned short>(buckets));
  metric_->cache_mem_.fetch_add(name.size() + kSuffixPointerBytes, std::memory_order_relaxed);
  metric_->cache_series_.fetch_add(1, std::memory_order_relaxed);
  METRICS_LOG_DEBUG("Create Suffix: name[%s] type[%s] in metric[%s]\n", name.c_str(),
                    CovMetricTypeToStr(type), metric_->name_.c_str());
  return ReturnCode::kOk;
}

void MetricSuffixArray::DoEmit(const CellMap::value_type& node, const MetricFieldValue& value) {
  const MetricsType type = node.second->Type();
  if (value.type != type) {
    METRICS_LOG_WARN("Suffix: %s type mismatch[pre: %d cur: %d]\n", value.name.c_str(),
                     static_cast<int>(type), static_cast<int>(value.type));
    return;
  }
  EmitNumber(*node.second, value);
}

CellMap MetricSuffixArray::Fields() {
  const ReadGuard guard(rwlock_);
  return suffixes_;
}

size_t MetricSuffixArray::Size() {
  const ReadGuard guard(rwlock_);
  return suffixes_.size();
}

size_t MetricSuffixArray::MemSize() {
  const ReadGuard guard(rwlock_);
  size_t size = 0;
  for (const auto& [name, cell] : suffixes_) {
    size += name.size() + kSuffixPointerBytes;
  }
  return size;
}

bool CheckExpire(const std::shared_ptr<MetricCollectorItem>& item, const long& now) {
  return now - item->last_update_.load(std::memory_order_relaxed) > kExpireAfterSeconds;
}

}  // namespace METRICS

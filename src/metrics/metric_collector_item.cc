#include "metrics/metric_collector_item.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "metrics/impl/metric_multi_field_impl.h"
#include "metrics/metric.h"
#include "metrics/metric_histogram.h"
#include "metrics/metric_registry.h"
#include "metrics/metric_summary.h"
#include "util/fork_guard.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"

namespace METRICS {
namespace {

/// What a cell is accounted for in the statistic beside its name.
constexpr size_t kCellPointerBytes = 16;

unsigned short BucketsOf(const std::vector<double>& bounds) {
  return static_cast<unsigned short>(bounds.size());
}

/// A value into a cell of its type that is no histogram.
void EmitNumber(MetricBasicData& cell, const MetricFieldValue& value) {
  if (value.is_integer) {
    cell.Emit(value.value.integer);
  } else {
    cell.Emit(value.value.real);
  }
}

/// A value into a histogram cell.
void EmitSampleValue(MetricBasicData& cell, const MetricFieldValue& value,
                     const std::vector<double>& bounds) {
  if (value.is_integer) {
    EmitSample(cell, value.value.integer, bounds);
  } else {
    EmitSample(cell, value.value.real, bounds);
  }
}

/// Adds the point of the interval before to `row`, for a field whose columns end before `end`.
void AppendPrevious(MetricsType type, uint32_t end, double prev_value, MultiFieldSendRes& row) {
  const uint32_t width = PreviousPointWidth(type);
  for (uint32_t i = 0; i < width; ++i) {
    row.prev_fields.push_back(end - width + i);
    row.prev_values.push_back(i == 0 ? prev_value : 0.0);
  }
}

/// Gives `found` in `cell` if it takes values of type `type`.
ReturnCode CellOfType(MetricsType type, const CellPtr& found, CellPtr& cell) {
  if (found->Type() != type) {
    return ReturnCode::kInvalidMetricType;
  }
  cell = found;
  return ReturnCode::kOk;
}

const MetricFieldInfo* FindLast(const std::string& name,
                                const std::vector<MetricFieldInfo>& fields) {
  const auto found =
      std::find_if(fields.rbegin(), fields.rend(),
                   [&name](const MetricFieldInfo& field) { return field.name == name; });
  return found == fields.rend() ? nullptr : &*found;
}

size_t MemSizeOf(const CellMap& cells) {
  size_t size = 0;
  for (const auto& [name, cell] : cells) {
    size += name.size() + kCellPointerBytes;
  }
  return size;
}

}  // namespace

MetricCollectorItem::~MetricCollectorItem() = default;

ReturnCode MetricCollectorItem::Emit(std::vector<MetricFieldValue>&& values) {
  return Emit(std::as_const(values));
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

ReturnCode MetricCollectorItem::Emit(const MetricFieldValue& /*value*/) {
  return ReturnCode::kNotSupported;
}

ReturnCode MetricCollectorItem::FindCell(const std::string& /*name*/, MetricsType /*type*/,
                                         CellPtr& /*cell*/) {
  return ReturnCode::kNotSupported;
}

CellPtr MetricCollectorItem::CreateData(const MetricsType& type, bool use_ckms,
                                        unsigned short bucket_count) {
  switch (type) {
    case MetricsType::kGauge:
      return std::make_shared<MetricGauge>();
    case MetricsType::kRate:
      return std::make_shared<MetricRate>();
    case MetricsType::kCounter:
      return std::make_shared<MetricCounter>();
    case MetricsType::kMeter:
      return std::make_shared<MetricMeter>();
    case MetricsType::kTimer:
      if (use_ckms) {
        return std::make_shared<MetricSummaryCKMS>();
      }
      return std::make_shared<MetricSummaryVecV2>();
    case MetricsType::kHistogram:
      return std::make_shared<MetricHistogram>(bucket_count);
    case MetricsType::kDeltaCounter:
      return std::make_shared<MetricDeltaCounter>();
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
  Refresh();
  metric_->emit_success_.Add(count);
}

bool MetricCollectorItem::Hold() {
  int32_t holders = holders_.load(std::memory_order_relaxed);
  while (holders != kErasing) {
    if (holders_.compare_exchange_weak(holders, holders + 1, std::memory_order_acquire)) {
      return true;
    }
  }
  return false;
}

bool MetricCollectorItem::ClaimForErasing() {
  int32_t nobody = 0;
  return holders_.compare_exchange_strong(nobody, kErasing, std::memory_order_acquire);
}

MetricSuffixArray::~MetricSuffixArray() {
  if (InForkTeardown() && rwlock_.ReinitAfterFork()) {
    Abandon(suffixes_);
  }
}

ReturnCode MetricSuffixArray::Emit(std::vector<MetricFieldValue>&& values) {
  return Emit(std::as_const(values));
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

ReturnCode MetricSuffixArray::Emit(const MetricFieldValue& value) {
  const ReturnCode code = EmitToKnown(value) ? ReturnCode::kOk : EmitToNew(value);
  if (code == ReturnCode::kOk) {
    MarkUpdated(1);
  }
  return code;
}

bool MetricSuffixArray::EmitToKnown(const MetricFieldValue& value) {
  const FastReadGuard guard(rwlock_);
  const auto found = suffixes_.find(value.name);
  if (found == suffixes_.end()) {
    return false;
  }
  DoEmit(*found, value);
  return true;
}

ReturnCode MetricSuffixArray::EmitToNew(const MetricFieldValue& value) {
  const WriteGuard guard(rwlock_);
  const ReturnCode code = EnsureSuffix(value.name, value.type);
  if (code != ReturnCode::kOk) {
    metric_->emit_fail_.fetch_add(1, std::memory_order_relaxed);
    METRICS_LOG_CODE(code);
    return code;
  }
  DoEmit(*suffixes_.find(value.name), value);
  return ReturnCode::kOk;
}

ReturnCode MetricSuffixArray::FindCell(const std::string& name, MetricsType type, CellPtr& cell) {
  const WriteGuard guard(rwlock_);
  const ReturnCode code = EnsureSuffix(name, type);
  if (code != ReturnCode::kOk) {
    return code;
  }
  return CellOfType(type, suffixes_.find(name)->second, cell);
}

ReturnCode MetricSuffixArray::EnsureSuffix(const std::string& name, const MetricsType& type) {
  // Another thread may have made it since the caller looked.
  return suffixes_.find(name) != suffixes_.end() ? ReturnCode::kOk : CreateSuffix(name, type);
}

ReturnCode MetricSuffixArray::CreateSuffix(const std::string& name, const MetricsType& type) {
  if (!IsValidKeyOrEmpty(name)) {
    METRICS_LOG_CODE(ReturnCode::kInvalidString);
    return ReturnCode::kInvalidString;
  }
  const unsigned short buckets =
      type == MetricsType::kHistogram ? BucketsOf(metric_->GetHistogram()) : 0;
  suffixes_[name] = CreateData(type, metric_->use_ckms_.load(std::memory_order_relaxed), buckets);
  metric_->cache_mem_.fetch_add(name.size() + kCellPointerBytes, std::memory_order_relaxed);
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
  if (type == MetricsType::kHistogram) {
    EmitSampleValue(*node.second, value, metric_->GetHistogram());
  } else {
    EmitNumber(*node.second, value);
  }
}

CellMap MetricSuffixArray::Fields() {
  const FastReadGuard guard(rwlock_);
  return suffixes_;
}

size_t MetricSuffixArray::Size() {
  const FastReadGuard guard(rwlock_);
  return suffixes_.size();
}

size_t MetricSuffixArray::MemSize() {
  const FastReadGuard guard(rwlock_);
  return MemSizeOf(suffixes_);
}

MetricFieldArray::MetricFieldArray(Metric* metric, const int& tag_hash,
                                   const std::string& encoded_tags)
    : MetricCollectorItem(metric, tag_hash, encoded_tags) {
  CreateField(metric->GetFieldInfo(), metric);
  field_count_ = fields_.size();
}

void MetricFieldArray::CreateField(const std::vector<MetricFieldInfo>& fields,
                                   Metric* const& metric) {
  const bool use_ckms = metric->use_ckms_.load(std::memory_order_relaxed);
  fields_.reserve(fields.size());
  for (const MetricFieldInfo& field : fields) {
    fields_[field.name] = CreateData(field.type, use_ckms, BucketsOf(field.bounds));
    metric->cache_mem_.fetch_add(field.name.size() + kCellPointerBytes, std::memory_order_relaxed);
    METRICS_LOG_DEBUG("Create Field: name[%s] type[%s] in metric[%s]\n", field.name.c_str(),
                      CovMetricTypeToStr(field.type), metric->name_.c_str());
  }
  metric->cache_series_.fetch_add(1, std::memory_order_relaxed);
}

ReturnCode MetricFieldArray::Emit(std::vector<MetricFieldValue>&& values) {
  return Emit(std::as_const(values));
}

ReturnCode MetricFieldArray::Emit(const std::vector<MetricFieldValue>& values) {
  if (RefuseMoreThanFields(values.size())) {
    return ReturnCode::kInvalidParamNumber;
  }
  for (const MetricFieldValue& value : values) {
    EmitToField(value);
  }
  MarkUpdated(1);
  return ReturnCode::kOk;
}

ReturnCode MetricFieldArray::Emit(const MetricFieldValue& value) {
  if (RefuseMoreThanFields(1)) {
    return ReturnCode::kInvalidParamNumber;
  }
  EmitToField(value);
  MarkUpdated(1);
  return ReturnCode::kOk;
}

bool MetricFieldArray::RefuseMoreThanFields(size_t count) {
  if (count <= field_count_) {
    return false;
  }
  metric_->emit_fail_.fetch_add(1, std::memory_order_relaxed);
  return true;
}

void MetricFieldArray::EmitToField(const MetricFieldValue& value) {
  const auto found = fields_.find(value.name);
  if (found == fields_.end()) {
    METRICS_LOG_WARN("Error Field Name: %s\n", value.name.c_str());
    return;
  }
  DoEmit(*found, value);
}

ReturnCode MetricFieldArray::FindCell(const std::string& name, MetricsType type, CellPtr& cell) {
  const auto found = fields_.find(name);
  return found == fields_.end() ? ReturnCode::kObjectNotExisted
                                : CellOfType(type, found->second, cell);
}

void MetricFieldArray::DoEmit(const CellMap::value_type& node, const MetricFieldValue& value) {
  const MetricsType type = node.second->Type();
  if (value.type != type) {
    METRICS_LOG_WARN("Field: %s type mismatch[pre: %d cur: %d]\n", value.name.c_str(),
                     static_cast<int>(type), static_cast<int>(value.type));
    return;
  }
  if (type == MetricsType::kHistogram) {
    EmitSampleValue(*node.second, value, FindHistogram(value.name, metric_->GetFieldInfo()));
  } else {
    EmitNumber(*node.second, value);
  }
}

ReturnCode MetricFieldArray::EmitMap(const std::unordered_map<std::string, double>& values) {
  for (const auto& [name, number] : values) {
    const auto found = fields_.find(name);
    if (found == fields_.end()) {
      continue;
    }
    MetricBasicData& cell = *found->second;
    if (cell.Type() == MetricsType::kHistogram) {
      EmitSample(cell, number, FindHistogram(name, metric_->GetFieldInfo()));
    } else {
      cell.Emit(number);
    }
  }
  MarkUpdated(1);
  return ReturnCode::kOk;
}

CellMap MetricFieldArray::Fields() { return fields_; }

size_t MetricFieldArray::MemSize() { return MemSizeOf(fields_); }

MultiFieldSendRes MetricFieldArray::Send(const std::vector<MetricFieldInfo>& fields) {
  const auto interval = static_cast<unsigned int>(metric_->registry_->FlushInterval());
  // With two fields of one name the cell is the last one's; the others stay quiet.
  const bool shared_names = field_count_ < fields.size();
  MultiFieldSendRes row;
  row.values.reserve(fields.size());
  row.value_fields.reserve(fields.size());
  uint32_t column = 0;
  for (const MetricFieldInfo& field : fields) {
    if (shared_names && FindLast(field.name, fields) != &field) {
      column += ColumnsOf(field.type, field.bounds.size());
      continue;
    }
    const SendRes res = fields_.find(field.name)->second->Send(interval);
    if (res.values.empty()) {
      column += res.field_width;  // a quiet field keeps its columns
      continue;
    }
    for (const double value : res.values) {
      row.value_fields.push_back(column++);
      row.values.push_back(value);
    }
    if (res.need_prev) {
      AppendPrevious(field.type, column, res.prev_value, row);
    }
  }
  return row;
}

MetricCompatibleItem::MetricCompatibleItem(Metric* metric, const int& tag_hash,
                                           const std::string& encoded_tags)
    : MetricCollectorItem(metric, tag_hash, encoded_tags),
      data_(CreateData(metric->compatible_type_.load(),
                       metric->use_ckms_.load(std::memory_order_relaxed), 0)) {
  metric->cache_mem_.fetch_add(kCellPointerBytes, std::memory_order_relaxed);
  METRICS_LOG_DEBUG("Create CompatibleItem: type[%s] in metric[%s]\n",
                    CovMetricTypeToStr(metric->compatible_type_.load()), metric->name_.c_str());
}

ReturnCode MetricCompatibleItem::Emit(double& value) {
  data_->Emit(std::as_const(value));
  MarkUpdated(1);
  return ReturnCode::kOk;
}

const std::vector<double>& FindHistogram(const std::string& name,
                                         const std::vector<MetricFieldInfo>& fields) {
  for (const MetricFieldInfo& field : fields) {
    if (field.name == name) {
      return field.bounds;
    }
  }
  return Metric::NoopHistogram();
}

bool CheckExpire(const std::shared_ptr<MetricCollectorItem>& item, const long& now) {
  return now - item->last_update_.load(std::memory_order_relaxed) > kExpireAfterSeconds;
}

}  // namespace METRICS

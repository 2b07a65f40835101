#include "metrics/series_items.h"

#include <cassert>
#include <cstddef>
#include <utility>

#include "metrics/cell_kinds.h"
#include "metrics/impl_parts.h"
#include "metrics/metric_data.h"
#include "metrics/metric_histogram.h"
#include "metrics/metric_parts.h"
#include "metrics/registry_parts.h"
#include "util/event_counter_add.h"
#include "util/log_scope.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"
#include "util/wall_clock.h"

namespace METRICS {
namespace {

unsigned short BucketsOf(const std::vector<double>& bounds) {
  return static_cast<unsigned short>(bounds.size());
}

/// Emits `number` on a cell. `bounds` gives the address of those of a histogram.
template <class Number, class Bounds>
[[gnu::always_inline]] inline void EmitNumber(const CellTable::Entry& entry, const Number& number,
                                              Bounds bounds) {
  MetricBasicData& cell = *entry.Cell();
  const MetricsType type = entry.Type();
  if (AddingSums* const sums = SumsOf(cell, type); sums != nullptr) {
    sums->Emit(number);
  } else if (type == MetricsType::kHistogram) {
    EmitSample(cell, number, *bounds());
  } else {
    cell.Emit(number);
  }
}

/// Emits what most emissions bring, an integer for an adding cell. Nothing is done if it gives
/// false.
[[gnu::always_inline]] inline bool AddInteger(const CellTable::Entry& entry,
                                              const MetricFieldValue& value) {
  if (value.type != entry.Type() || !value.is_integer) {
    return false;
  }
  AddingSums* const sums = SumsOf(*entry.Cell(), value.type);
  if (sums == nullptr) {
    return false;
  }
  sums->Emit(value.value.integer);
  return true;
}

/// Emits `value` on a cell, or drops it with a Warn line, which calls the cell `what`, where the
/// types differ.
template <class Bounds>
[[gnu::always_inline]] inline void EmitValue(const char* what, const CellTable::Entry& entry,
                                             const MetricFieldValue& value, Bounds bounds) {
  if (value.type != entry.Type()) {
    METRICS_LOG_WARN("%s: %s type mismatch[pre: %d cur: %d]\n", what, value.name.c_str(),
                     static_cast<int>(entry.Type()), static_cast<int>(value.type));
  } else if (value.is_integer) {
    EmitNumber(entry, value.value.integer, bounds);
  } else {
    EmitNumber(entry, value.value.real, bounds);
  }
}

/// The cell that takes `value`, the one with that index in its list; null if there is none.
[[gnu::always_inline]] inline const CellTable::Entry* FindTaker(const CellTable& cells,
                                                                const MetricFieldValue& value,
                                                                size_t index) {
  const CellTable::Entry* const found = cells.Find(value.name, index);
  return found != nullptr && found->Type() == value.type ? found : nullptr;
}

/// Calls `emit` for each of `values` with its cell, if all have one of their type.
template <class Emit>
[[gnu::always_inline]] inline bool EmitPlainTo(const CellTable& cells,
                                               const MetricFieldValue* values, size_t count,
                                               Emit emit) {
  assert(count <= kMaxPlainValues);
  const CellTable::Entry* found[kMaxPlainValues];
  if (count == 1) {  // mostly
    const CellTable::Entry* const taker = FindTaker(cells, *values, 0);
    if (taker != nullptr) {
      emit(*taker, *values);
    }
    return taker != nullptr;
  }
  for (size_t i = 0; i < count; ++i) {
    found[i] = FindTaker(cells, values[i], i);
    if (found[i] == nullptr) {
      return false;
    }
  }
  for (size_t i = 0; i < count; ++i) {
    emit(*found[i], values[i]);
  }
  return true;
}

/// Adds the point of the interval before to `row`, for a field whose columns end before `end`.
void AppendPrevious(MetricsType type, uint32_t end, double prev_value, MultiFieldSendRes& row) {
  const uint32_t width = KindOf(type).previous;
  for (uint32_t i = 0; i < width; ++i) {
    row.prev_fields.push_back(end - width + i);
    row.prev_values.push_back(i == 0 ? prev_value : 0.0);
  }
}

/// What every successful emission of `count` values on `item` ends with.
[[gnu::always_inline]] inline void MarkUpdated(MetricCollectorItem& item, size_t count) {
  item.MarkTime(WallSeconds());
  item.metric_->emit_success_.Add(count);
}

/// Gives `found` in `cell` if it takes values of type `type`.
ReturnCode CellOfType(MetricsType type, const CellPtr& found, CellPtr& cell) {
  if (found->Type() != type) {
    return ReturnCode::kInvalidMetricType;
  }
  cell = found;
  return ReturnCode::kOk;
}

}  // namespace

inline void MetricSuffixArray::DoEmit(const CellTable::Entry& entry,
                                      const MetricFieldValue& value) {
  if (!AddInteger(entry, value)) {
    EmitOther(entry, value);
  }
}

[[gnu::always_inline]] inline bool MetricSuffixArray::EmitToKnown(const MetricFieldValue& value,
                                                                  size_t index) {
  const CellTable::Entry* const found = suffixes_.Find(value.name, index);
  if (found == nullptr) {
    return false;
  }
  DoEmit(*found, value);
  return true;
}

ReturnCode MetricSuffixArray::Emit(std::vector<MetricFieldValue>&& values) {
  return Emit(std::as_const(values));
}

ReturnCode MetricSuffixArray::Emit(const std::vector<MetricFieldValue>& values) {
  const auto emit = [&]() __attribute__((always_inline)) {
    for (size_t i = 0; i < values.size(); ++i) {
      if (EmitToKnown(values[i], i)) {
        continue;
      }
      const ReturnCode code = EmitToNew(values[i]);
      if (code != ReturnCode::kOk) {
        return code;
      }
    }
    MarkUpdated(*this, values.size());
    return ReturnCode::kOk;
  };
  return IsHidden() ? EmitHidden(emit) : emit();
}

ReturnCode MetricSuffixArray::Emit(const MetricFieldValue& value) {
  const auto emit = [&]() __attribute__((always_inline)) {
    const ReturnCode code = EmitToKnown(value, 0) ? ReturnCode::kOk : EmitToNew(value);
    if (code == ReturnCode::kOk) {
      MarkUpdated(*this, 1);
    }
    return code;
  };
  return IsHidden() ? EmitHidden(emit) : emit();
}

ReturnCode MetricSuffixArray::EmitToNew(const MetricFieldValue& value) {
  const CellTable::Entry* entry = nullptr;
  const ReturnCode code = EnsureSuffix(value.name, value.type, entry);
  if (code != ReturnCode::kOk) {
    metric_->emit_fail_.fetch_add(1, std::memory_order_relaxed);
    METRICS_LOG_CODE(code);
    return code;
  }
  DoEmit(*entry, value);
  return ReturnCode::kOk;
}

ReturnCode MetricSuffixArray::FindCell(const std::string& name, MetricsType type, CellPtr& cell) {
  const CellTable::Entry* entry = nullptr;
  const ReturnCode code = EnsureSuffix(name, type, entry);
  return code == ReturnCode::kOk ? CellOfType(type, entry->Cell(), cell) : code;
}

ReturnCode MetricSuffixArray::EnsureSuffix(const std::string& name, const MetricsType& type,
                                           const CellTable::Entry*& entry) {
  const LogScope lines;
  const WriteGuard guard(adding_);
  // Another thread may have made it since the caller looked.
  entry = suffixes_.Find(name, 0);
  return entry != nullptr ? ReturnCode::kOk : CreateSuffix(name, type, entry);
}

ReturnCode MetricSuffixArray::CreateSuffix(const std::string& name, const MetricsType& type,
                                           const CellTable::Entry*& entry) {
  if (!IsValidKeyOrEmpty(name)) {
    METRICS_LOG_CODE(ReturnCode::kInvalidString);
    return ReturnCode::kInvalidString;
  }
  const unsigned short buckets =
      type == MetricsType::kHistogram ? BucketsOf(metric_->GetHistogram()) : 0;
  entry = &suffixes_.Add(
      name, CreateData(type, metric_->use_ckms_.load(std::memory_order_relaxed), buckets));
  metric_->cache_mem_.fetch_add(name.size() + CellTable::kPointerBytes, std::memory_order_relaxed);
  metric_->cache_series_.fetch_add(1, std::memory_order_relaxed);
  METRICS_LOG_DEBUG("Create Suffix: name[%s] type[%s] in metric[%s]\n", name.c_str(),
                    CovMetricTypeToStr(type), metric_->name_.c_str());
  return ReturnCode::kOk;
}

bool MetricSuffixArray::EmitPlain(const MetricFieldValue* values, size_t count) {
  if (IsHidden()) {
    return false;
  }
  const auto emit = [this](const CellTable::Entry& entry, const MetricFieldValue& value)
      __attribute__((always_inline)) {
    DoEmit(entry, value);
  };
  if (!EmitPlainTo(suffixes_, values, count, emit)) {
    return false;
  }
  MarkUpdated(*this, count);
  return true;
}

void MetricSuffixArray::EmitOther(const CellTable::Entry& entry, const MetricFieldValue& value) {
  EmitValue("Suffix", entry, value, [&] { return &metric_->GetHistogram(); });
}

CellMap MetricSuffixArray::Fields() { return suffixes_.ToMap(); }

size_t MetricSuffixArray::Size() { return suffixes_.Size(); }

size_t MetricSuffixArray::MemSize() { return suffixes_.MemSize(); }

void MetricSuffixArray::ListCells(std::vector<CellRef>& cells) {
  size_t count = 0;
  suffixes_.ForEach([&](const CellTable::Entry& entry) {
    if (count == cells.size()) {
      cells.emplace_back();
    }
    CellRef& ref = cells[count++];
    ref.name = entry.Name();
    ref.cell = entry.Cell().get();
    ref.type = entry.Type();
    __builtin_prefetch(ref.cell, 1);
  });
  cells.resize(count);
}

MetricFieldArray::MetricFieldArray(MetricParts* metric, const int& tag_hash,
                                   const std::string& encoded_tags)
    : MetricCollectorItem(metric, tag_hash, encoded_tags) {
  CreateField(metric->GetFieldInfo(), metric);
  field_count_ = fields_.Size();
}

void MetricFieldArray::CreateField(const std::vector<MetricFieldInfo>& fields,
                                   MetricParts* const& metric) {
  const bool use_ckms = metric->use_ckms_.load(std::memory_order_relaxed);
  fields_.Reserve(fields.size());
  for (const MetricFieldInfo& field : fields) {
    fields_.Set(field.name, CreateData(field.type, use_ckms, BucketsOf(field.bounds)));
    metric->cache_mem_.fetch_add(field.name.size() + CellTable::kPointerBytes,
                                 std::memory_order_relaxed);
    METRICS_LOG_DEBUG("Create Field: name[%s] type[%s] in metric[%s]\n", field.name.c_str(),
                      CovMetricTypeToStr(field.type), metric->name_.c_str());
  }
  metric->cache_series_.fetch_add(1, std::memory_order_relaxed);
}

inline void MetricFieldArray::DoEmit(const CellTable::Entry& entry, const MetricFieldValue& value) {
  if (!AddInteger(entry, value)) {
    EmitOther(entry, value);
  }
}

ReturnCode MetricFieldArray::Emit(std::vector<MetricFieldValue>&& values) {
  return Emit(std::as_const(values));
}

ReturnCode MetricFieldArray::Emit(const std::vector<MetricFieldValue>& values) {
  const auto emit = [&]() __attribute__((always_inline)) {
    if (RefuseMoreThanFields(values.size())) {
      return ReturnCode::kInvalidParamNumber;
    }
    for (size_t i = 0; i < values.size(); ++i) {
      EmitToField(values[i], i);
    }
    MarkUpdated(*this, 1);
    return ReturnCode::kOk;
  };
  return IsHidden() ? EmitHidden(emit) : emit();
}

ReturnCode MetricFieldArray::Emit(const MetricFieldValue& value) {
  const auto emit = [&]() __attribute__((always_inline)) {
    if (RefuseMoreThanFields(1)) {
      return ReturnCode::kInvalidParamNumber;
    }
    EmitToField(value, 0);
    MarkUpdated(*this, 1);
    return ReturnCode::kOk;
  };
  return IsHidden() ? EmitHidden(emit) : emit();
}

bool MetricFieldArray::RefuseMoreThanFields(size_t count) {
  if (count <= field_count_) {
    return false;
  }
  metric_->emit_fail_.fetch_add(1, std::memory_order_relaxed);
  return true;
}

void MetricFieldArray::EmitToField(const MetricFieldValue& value, size_t index) {
  const CellTable::Entry* const found = fields_.Find(value.name, index);
  if (found == nullptr) {
    METRICS_LOG_WARN("Error Field Name: %s\n", value.name.c_str());
    return;
  }
  DoEmit(*found, value);
}

ReturnCode MetricFieldArray::FindCell(const std::string& name, MetricsType type, CellPtr& cell) {
  const CellTable::Entry* const found = fields_.Find(name, 0);
  return found == nullptr ? ReturnCode::kObjectNotExisted : CellOfType(type, found->Cell(), cell);
}

bool MetricFieldArray::EmitPlain(const MetricFieldValue* values, size_t count) {
  const auto emit = [this](const CellTable::Entry& entry, const MetricFieldValue& value) {
    DoEmit(entry, value);
  };
  if (IsHidden() || count > field_count_ || !EmitPlainTo(fields_, values, count, emit)) {
    return false;
  }
  MarkUpdated(*this, 1);
  return true;
}

void MetricFieldArray::EmitOther(const CellTable::Entry& entry, const MetricFieldValue& value) {
  EmitValue("Field", entry, value, [&] { return &BoundsOf(value.name); });
}

ReturnCode MetricFieldArray::EmitMap(const std::unordered_map<std::string, double>& values) {
  const auto emit = [&]() __attribute__((always_inline)) {
    for (const auto& [name, number] : values) {
      if (const CellTable::Entry* const found = fields_.Find(name, 0); found != nullptr) {
        EmitNumber(*found, number, [&, &field = name] { return &BoundsOf(field); });
      }
    }
    MarkUpdated(*this, 1);
    return ReturnCode::kOk;
  };
  return IsHidden() ? EmitHidden(emit) : emit();
}

const std::vector<double>& MetricFieldArray::BoundsOf(const std::string& field) const {
  return FindHistogram(field, metric_->GetFieldInfo());
}

CellMap MetricFieldArray::Fields() { return fields_.ToMap(); }

size_t MetricFieldArray::MemSize() { return fields_.MemSize(); }

MultiFieldSendRes MetricFieldArray::Send(const std::vector<MetricFieldInfo>& fields) {
  MultiFieldSendRes row;
  Drain(fields, row);
  return row;
}

void MetricFieldArray::Drain(const std::vector<MetricFieldInfo>& fields, MultiFieldSendRes& row) {
  const auto interval = static_cast<unsigned int>(metric_->registry_parts_->FlushInterval());
  row.Clear();
  uint32_t column = 0;
  for (const MetricFieldInfo& field : fields) {
    if (!field.reports) {
      column += KindOf(field.type).Numbers(field.bounds.size());
      continue;
    }
    const size_t index = static_cast<size_t>(&field - fields.data());
    const SendRes res = fields_.Find(field.name, index)->Cell()->Send(interval);
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
}

MetricCompatibleItem::MetricCompatibleItem(MetricParts* metric, const int& tag_hash,
                                           const std::string& encoded_tags)
    : MetricCollectorItem(metric, tag_hash, encoded_tags),
      data_(CreateData(metric->compatible_type_.load(),
                       metric->use_ckms_.load(std::memory_order_relaxed), 0)) {
  metric->cache_mem_.fetch_add(CellTable::kPointerBytes, std::memory_order_relaxed);
  METRICS_LOG_DEBUG("Create CompatibleItem: type[%s] in metric[%s]\n",
                    CovMetricTypeToStr(metric->compatible_type_.load()), metric->name_.c_str());
}

ReturnCode MetricCompatibleItem::Emit(double& value) {
  const auto emit = [&]() __attribute__((always_inline)) {
    data_->Emit(std::as_const(value));
    MarkUpdated(*this, 1);
    return ReturnCode::kOk;
  };
  return IsHidden() ? EmitHidden(emit) : emit();
}

bool EmitPlain(MetricCollectorItem& item, MetricCoItemType kind, const MetricFieldValue* values,
               size_t count) {
  switch (kind) {
    case MetricCoItemType::kCoItemSuffix:
      return static_cast<MetricSuffixArray&>(item).EmitPlain(values, count);
    case MetricCoItemType::kCoItemField:
      return static_cast<MetricFieldArray&>(item).EmitPlain(values, count);
    case MetricCoItemType::kCoItemCompatible:
    case MetricCoItemType::kCoItemUnknown:
      break;
  }
  return false;
}

std::shared_ptr<MetricCollectorItem> CountedDummyItem(MetricParts& metric) {
  metric.emit_fail_.fetch_add(1, std::memory_order_relaxed);
  return DummyItem();
}

const std::vector<double>& FindHistogram(const std::string& name,
                                         const std::vector<MetricFieldInfo>& fields) {
  for (const MetricFieldInfo& field : fields) {
    if (field.name == name) {
      return field.bounds;
    }
  }
  return MetricParts::NoopHistogram();
}

bool CheckExpire(const std::shared_ptr<MetricCollectorItem>& item, const long& now) {
  return item->IsIdle(now);
}

}  // namespace METRICS

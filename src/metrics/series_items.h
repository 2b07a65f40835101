#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/cell_ptr.h"
#include "metrics/cell_table.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "util/byte_lock.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"

namespace METRICS {

class MetricParts;
struct MetricFieldInfo;

/// The item of ordinary metrics: its cells appear on first sight, one per suffix.
///
/// The type that a suffix is first emitted with stays; values of another type are dropped with a
/// Warn line. Emitting on known suffixes takes no lock and allocates nothing.
class MetricSuffixArray final : public MetricCollectorItem {
 public:
  MetricSuffixArray(MetricParts* metric, const int& tag_hash, const std::string& encoded_tags)
      : MetricCollectorItem(metric, tag_hash, encoded_tags) {}
  using MetricCollectorItem::Emit;
  // The temporary's form is overridden too: it saves a second virtual call.
  /// 0, or the code of the first value whose suffix was refused: the values before it are
  /// emitted then, the ones after it are not.
  ReturnCode Emit(std::vector<MetricFieldValue>&& values) override;
  ReturnCode Emit(const std::vector<MetricFieldValue>& values) override;
  CellMap Fields() override;
  size_t Size() override;
  size_t MemSize() override;
  MetricCoItemType Type() override { return MetricCoItemType::kCoItemSuffix; }
  ReturnCode Emit(const MetricFieldValue& value) override;
  ReturnCode FindCell(const std::string& name, MetricsType type, CellPtr& cell) override;
  /// See the function of this name.
  bool EmitPlain(const MetricFieldValue* values, size_t count);
  void ListCells(std::vector<CellRef>& cells) override;

 private:
  /// False when there is no cell for the value's suffix yet. `index` is that of the value in its
  /// list: callers mostly emit the same suffixes in the same order.
  bool EmitToKnown(const MetricFieldValue& value, size_t index);
  ReturnCode EmitToNew(const MetricFieldValue& value);
  /// Gives the cell of a suffix in `entry`; makes it if it is not there.
  ReturnCode EnsureSuffix(const std::string& name, const MetricsType& type,
                          const CellTable::Entry*& entry);
  ReturnCode CreateSuffix(const std::string& name, const MetricsType& type,
                          const CellTable::Entry*& entry) METRICS_REQUIRES(adding_);
  void DoEmit(const CellTable::Entry& entry, const MetricFieldValue& value);
  __attribute__((noinline)) void EmitOther(const CellTable::Entry& entry,
                                           const MetricFieldValue& value);

  ByteLock adding_;  ///< held by whoever adds a suffix
  /// A cell is never replaced or removed while the item lives.
  CellTable suffixes_;
};

/// What `MetricFieldArray::Send` reports of one interval: numbers with the columns they belong to.
struct MultiFieldSendRes {
  void Clear() {
    values.clear();
    prev_values.clear();
    value_fields.clear();
    prev_fields.clear();
  }

  std::vector<double> values;
  std::vector<double> prev_values;  ///< of the interval before, for fields that ask for them
  std::vector<uint32_t> value_fields;
  std::vector<uint32_t> prev_fields;
};

/// The item of a metric with a row of declared fields, one cell per field name.
///
/// The cells are made with the item and never change, so nothing here takes a lock. A value for
/// an unknown field or of another type than declared is dropped with a Warn line.
class MetricFieldArray final : public MetricCollectorItem {
 public:
  MetricFieldArray(MetricParts* metric, const int& tag_hash, const std::string& encoded_tags);

  using MetricCollectorItem::Emit;
  /// 0, or 54 when there are more values than fields: none is emitted then.
  ReturnCode Emit(std::vector<MetricFieldValue>&& values) override;
  ReturnCode Emit(const std::vector<MetricFieldValue>& values) override;
  /// Unknown names are ignored, types are not checked. Always 0.
  ReturnCode EmitMap(const std::unordered_map<std::string, double>& values) override;
  CellMap Fields() override;
  /// 1: a row counts as one, however many fields it has.
  size_t Size() override { return 1; }
  size_t MemSize() override;
  MetricCoItemType Type() override { return MetricCoItemType::kCoItemField; }
  ReturnCode Emit(const MetricFieldValue& value) override;
  ReturnCode FindCell(const std::string& name, MetricsType type, CellPtr& cell) override;
  /// See the function of this name.
  bool EmitPlain(const MetricFieldValue* values, size_t count);

  /// Drains all cells in the order of `fields`, the metric's declaration. On the flush thread.
  MultiFieldSendRes Send(const std::vector<MetricFieldInfo>& fields);
  /// The same into a row that keeps its memory from call to call.
  void Drain(const std::vector<MetricFieldInfo>& fields, MultiFieldSendRes& row);

 private:
  void CreateField(const std::vector<MetricFieldInfo>& fields, MetricParts* const& metric);
  bool RefuseMoreThanFields(size_t count);
  /// Drops a value that names no field. `index` is where it is expected.
  void EmitToField(const MetricFieldValue& value, size_t index);
  void DoEmit(const CellTable::Entry& entry, const MetricFieldValue& value);
  __attribute__((noinline)) void EmitOther(const CellTable::Entry& entry,
                                           const MetricFieldValue& value);
  const std::vector<double>& BoundsOf(const std::string& field) const;

  CellTable fields_;
  size_t field_count_ = 0;
};

/// The item of a compatible metric: one cell.
class MetricCompatibleItem final : public MetricCollectorItem {
 public:
  MetricCompatibleItem(MetricParts* metric, const int& tag_hash, const std::string& encoded_tags);

  using MetricCollectorItem::Emit;
  ReturnCode Emit(double& value) override;
  CellPtr Data() override { return data_; }
  size_t Size() override { return 1; }
  MetricCoItemType Type() override { return MetricCoItemType::kCoItemCompatible; }

 private:
  const CellPtr data_;
};

/// As many values go in at once within the lock of a table.
constexpr size_t kMaxPlainValues = 8;

/// Emits `values` on an item of the form `kind`, as its `Emit` does, if that makes nothing and
/// refuses nothing. False where nothing was done: for a hidden item, a new suffix, an unknown field
/// or a value of another type. REQUIRES: no more than `kMaxPlainValues`.
bool EmitPlain(MetricCollectorItem& item, MetricCoItemType kind, const MetricFieldValue* values,
               size_t count);

/// Counts a failed emission on `metric` and gives the dummy item.
std::shared_ptr<MetricCollectorItem> CountedDummyItem(MetricParts& metric);

/// The bounds of the first field named `name`, or an empty list.
const std::vector<double>& FindHistogram(const std::string& name,
                                         const std::vector<MetricFieldInfo>& fields);

/// Whether `item` has had no emission for more than 7200 seconds at second `now`.
bool CheckExpire(const std::shared_ptr<MetricCollectorItem>& item, const long& now);

}  // namespace METRICS

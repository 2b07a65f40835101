#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/cell_table.h"
#include "metrics/metric_data.h"
#include "metrics/metric_method.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"
#include "util/metric_lock.h"

namespace METRICS {

class Metric;
struct MetricFieldInfo;

/// A cell as the flush walks it. The name is a copy: the item may move its own meanwhile.
struct CellRef {
  std::string name;
  MetricBasicData* cell = nullptr;  ///< good for as long as its item lives
  MetricsType type = MetricsType::kUnknown;
};

/// Seconds without an emission after which a series counts as idle.
constexpr long kExpireAfterSeconds = 7200;

/// The handle of one series: one vector of tag values of one metric. Callers get it from the
/// `With...` family of `Metric`, emit on it and may keep it, as long as the metric exists.
///
/// Threads: all operations from any thread. Ownership: by shared pointer, of the collector and of
/// callers. An item that the library has dropped keeps nothing more: `Emit` answers 22 while its
/// registry is blocked, else 23 (the series was idle for more than 7200 seconds, or the registry
/// blocked and unblocked). Both count in the metric's `emit_fail_`; take the item again then. The
/// base class is the dummy item that callers get after a failure: emitting on it does nothing and
/// answers 70.
class METRICS_API MetricCollectorItem {
 public:
  MetricCollectorItem(Metric* metric, const int& tag_hash, const std::string& encoded_tags)
      : metric_(metric), tag_hash_(tag_hash), encoded_tags_(encoded_tags) {}
  virtual ~MetricCollectorItem();
  MetricCollectorItem(const MetricCollectorItem&) = delete;
  MetricCollectorItem& operator=(const MetricCollectorItem&) = delete;

  /// Emits a list of values, each to the cell that its name tells. See the item kinds.
  virtual ReturnCode Emit(std::vector<MetricFieldValue>&& values);
  virtual ReturnCode Emit(const std::vector<MetricFieldValue>& values);
  /// Emits one number where the series has a single cell.
  virtual ReturnCode Emit(double& value);
  /// Emits numbers by field name.
  virtual ReturnCode EmitMap(const std::unordered_map<std::string, double>& values);
  /// The cells by name: a copy of the table, sharing the live cells.
  virtual CellMap Fields();
  /// The single cell of a series that has but one.
  virtual CellPtr Data();
  /// Number of cells.
  virtual size_t Size();
  /// Estimate of the bytes that names and pointers of the cells occupy.
  virtual size_t MemSize();
  virtual MetricCoItemType Type();
  /// Emits one value as a list of it alone does, but without the list.
  virtual ReturnCode Emit(const MetricFieldValue& value);
  /// Gives in `cell` the cell that values named `name` of type `type` go to; a suffix that is new
  /// is made. 53 for a bad suffix, 20 for a field that was not declared, 52 for a cell of another
  /// type, 70 where cells have no names.
  virtual ReturnCode FindCell(const std::string& name, MetricsType type, CellPtr& cell);
  /// The cells for a flush: as `Fields`, but into a list that keeps its memory from call to call.
  virtual void ListCells(std::vector<CellRef>& cells);

  /// What stands in braces: of one value the form above, else a list.
  ReturnCode Emit(std::initializer_list<MetricFieldValue> values) {
    return values.size() == 1 ? Emit(*values.begin()) : Emit(std::vector<MetricFieldValue>(values));
  }

  /// Makes the cell for `type`; `bucket_count` counts for histograms alone. An unknown type gives
  /// an error line and the no-op cell.
  static CellPtr CreateData(const MetricsType& type, bool use_ckms, unsigned short bucket_count);

  /// The shared no-op cell, and the shared empty table. Never destroyed.
  static CellPtr NoopDataPtr();
  static CellMap& NoopFields();

  /// Marks the series as alive now, for cells that are fed directly. A dropped one stays dropped.
  void Refresh() {
    MarkTime();
    if (!active_.load(std::memory_order_relaxed)) {
      SetActive(true);
    }
  }
  /// Notes the second of an emission, which has found the series active.
  void MarkTime() {
    const int64_t now = ::time(nullptr);
    // A store of what is there already would take the line from other threads.
    if (last_update_.load(std::memory_order_relaxed) != now) {
      MarkNewSecond(now);
    }
  }
  /// Puts the series into flushes or hides it. One that was dropped stays hidden.
  void SetActive(bool active);

  // A held series is hidden when it is idle, but never erased by expiry.
  /// False when the library has dropped the item or is about to erase it: look it up anew.
  bool Hold();
  bool IsHeld() const { return holders_.load(std::memory_order_relaxed) % kDropped > 0; }
  void LetGo() { holders_.fetch_sub(1, std::memory_order_release); }
  /// For the expiry, before erasing: false when somebody holds the item. Ends all `Hold`s.
  bool ClaimForErasing();
  /// Takes that back: the item stays.
  void Unclaim() { holders_.fetch_and(~kErasing, std::memory_order_release); }
  /// Whether the item has had no emission for more than 7200 seconds at second `now`.
  bool IsIdle(long now) const {
    return now - last_update_.load(std::memory_order_relaxed) > kExpireAfterSeconds;
  }

  /// For the collector, once it has taken the item out of its table: no flush will see what is
  /// emitted from now on, so emissions are refused. What is under way may still get in.
  void Drop();
  bool IsDropped() const { return (holders_.load() & kDropped) != 0; }
  /// Counts an emission on a dropped item as failed; 22 while its metric is blocked, else 23.
  ReturnCode RefuseDropped() const;

  // Written by emitting threads and, for `active_`, by the expiry; read by flush and expiry. A
  // stale reading delays an expiry, no more.
  std::atomic<int64_t> last_update_{
      0};  ///< second of the last successful emission, or of its entry into a table
  /// False: idle or dropped, and left out of flushes. What every emission looks at first, so that
  /// only those that find it false look further.
  std::atomic<bool> active_{true};
  /// Its tag values have been validated, and equal ones need not be again.
  std::atomic<bool> tags_valid_{false};

 private:
  // Bits of `holders_` above the number of holders.
  static constexpr uint32_t kDropped = 1U << 30;
  static constexpr uint32_t kErasing = 1U << 31;

  __attribute__((noinline)) void MarkNewSecond(int64_t now);

  std::atomic<uint32_t> holders_{0};

 public:
  // Constant after construction, unless the tags are not encoded ahead: then the flush thread, and
  // it alone, fills in the hash once, and for compatible metrics the tags too.
  Metric* const metric_;  ///< not owned
  int32_t tag_hash_;
  std::string encoded_tags_;

 protected:
  bool IsHidden() const { return !active_.load(std::memory_order_relaxed); }
  /// The way of an emission on a hidden item: refuses on a dropped one, else calls `emit` and then
  /// shows the item; what fails or throws shows nothing.
  template <class Emission>
  __attribute__((cold, noinline)) ReturnCode EmitHidden(Emission emit) {
    if (IsDropped()) {
      return RefuseDropped();
    }
    const ReturnCode code = emit();
    if (code == ReturnCode::kOk) {
      SetActive(true);
    }
    return code;
  }
  /// What every successful emission of `count` values ends with.
  void MarkUpdated(size_t count);
};

/// The item of ordinary metrics: its cells appear on first sight, one per suffix.
///
/// The type that a suffix is first emitted with stays; values of another type are dropped with a
/// Warn line. Emitting on known suffixes takes the item's read lock once per value and allocates
/// nothing.
class METRICS_API MetricSuffixArray final : public MetricCollectorItem {
 public:
  MetricSuffixArray(Metric* metric, const int& tag_hash, const std::string& encoded_tags)
      : MetricCollectorItem(metric, tag_hash, encoded_tags) {}
  ~MetricSuffixArray() override;

  using MetricCollectorItem::Emit;
  // The temporary's form is overridden too: it saves a second virtual call.
  /// 0, or the code of the first value whose suffix was refused: the values ahead of it are
  /// emitted then, the ones behind it are not.
  ReturnCode Emit(std::vector<MetricFieldValue>&& values) override;
  ReturnCode Emit(const std::vector<MetricFieldValue>& values) override;
  CellMap Fields() override;
  size_t Size() override;
  size_t MemSize() override;
  MetricCoItemType Type() override { return MetricCoItemType::kCoItemSuffix; }
  ReturnCode Emit(const MetricFieldValue& value) override;
  ReturnCode FindCell(const std::string& name, MetricsType type, CellPtr& cell) override;
  void ListCells(std::vector<CellRef>& cells) override;

 private:
  /// False when there is no cell for the value's suffix yet. `place` is that of the value in its
  /// list: callers mostly emit the same suffixes in the same order.
  bool EmitToKnown(const MetricFieldValue& value, size_t place);
  ReturnCode EmitToNew(const MetricFieldValue& value);
  /// Makes the suffix if it is not there.
  ReturnCode EnsureSuffix(const std::string& name, const MetricsType& type)
      METRICS_REQUIRES(rwlock_);
  ReturnCode CreateSuffix(const std::string& name, const MetricsType& type)
      METRICS_REQUIRES(rwlock_);
  void DoEmit(const CellTable::Entry& entry, const MetricFieldValue& value);

  /// A cell is never replaced or removed while the item lives. Ahead of the lock, whose first bytes
  /// are all that an emission reads of it: they then share a cache line.
  CellTable suffixes_ METRICS_GUARDED_BY(rwlock_);
  BiasedRwLock rwlock_;
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
class METRICS_API MetricFieldArray final : public MetricCollectorItem {
 public:
  MetricFieldArray(Metric* metric, const int& tag_hash, const std::string& encoded_tags);

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

  /// Drains all cells in the order of `fields`, the metric's declaration. On the flush thread.
  MultiFieldSendRes Send(const std::vector<MetricFieldInfo>& fields);
  /// The same into a row that keeps its memory from call to call.
  void Drain(const std::vector<MetricFieldInfo>& fields, MultiFieldSendRes& row);

 private:
  void CreateField(const std::vector<MetricFieldInfo>& fields, Metric* const& metric);
  bool RefuseMoreThanFields(size_t count);
  /// Drops a value that names no field. `place` is where it is expected.
  void EmitToField(const MetricFieldValue& value, size_t place);
  void DoEmit(const CellTable::Entry& entry, const MetricFieldValue& value);

  CellTable fields_;
  size_t field_count_ = 0;
};

/// The item of a compatible metric: one cell.
class METRICS_API MetricCompatibleItem final : public MetricCollectorItem {
 public:
  MetricCompatibleItem(Metric* metric, const int& tag_hash, const std::string& encoded_tags);

  using MetricCollectorItem::Emit;
  ReturnCode Emit(double& value) override;
  CellPtr Data() override { return data_; }
  size_t Size() override { return 1; }
  MetricCoItemType Type() override { return MetricCoItemType::kCoItemCompatible; }

 private:
  const CellPtr data_;
};

/// Series that were taken out of a collector: they die with it, so without any lock.
using SeriesRemains = std::unique_ptr<void, void (*)(void*)>;

inline SeriesRemains NoRemains() {
  return {nullptr, [](void*) {}};
}

/// The bounds of the first field named `name`, or an empty list.
const std::vector<double>& FindHistogram(const std::string& name,
                                         const std::vector<MetricFieldInfo>& fields);

/// Whether `item` has had no emission for more than 7200 seconds at second `now`.
bool CheckExpire(const std::shared_ptr<MetricCollectorItem>& item, const long& now);

}  // namespace METRICS

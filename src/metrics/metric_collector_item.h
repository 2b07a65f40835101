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

namespace METRICS {

class MetricParts;
struct CellRef;

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
  MetricCollectorItem(MetricParts* metric, const int& tag_hash, const std::string& encoded_tags)
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
  MetricParts* const metric_;  ///< not owned
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
};

/// The shared item that stands for every failure: emitting on it does nothing and answers 70.
/// Never destroyed.
METRICS_API std::shared_ptr<MetricCollectorItem> DummyItem();

}  // namespace METRICS

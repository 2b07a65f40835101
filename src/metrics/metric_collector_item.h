#pragma once

#include <atomic>
#include <cassert>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/cell_ptr.h"
#include "metrics/metric_method.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

class MetricParts;
class PackedValues;
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
  /// For the library: callers get items from a metric. `tag_hash` and `encoded_tags` are the tags
  /// in packet form, or 0 and empty where the flush encodes them.
  MetricCollectorItem(MetricParts* metric, const int& tag_hash, const std::string& encoded_tags)
      : encoded_tags_(encoded_tags), metric_(metric), tag_hash_(tag_hash) {}
  virtual ~MetricCollectorItem();
  MetricCollectorItem(const MetricCollectorItem&) = delete;
  MetricCollectorItem& operator=(const MetricCollectorItem&) = delete;

  // The base class, which is the dummy item, answers 70 to all of these and keeps nothing; so does
  // an item of a form that has no use for one. 22 and 23 come from a dropped item, see above.

  /// Emits a list of values, each to the cell that its name tells; an empty list counts as an
  /// emission. A value whose type is not that of its cell is dropped with a Warn line, and the
  /// result is 0 all the same. On a suffixed metric a new name makes a suffix: 53 where it has
  /// illegal characters, the values before it are emitted then and the ones after it are not. On a
  /// row of fields a name that was not declared is dropped with a Warn line; 54 for more values
  /// than fields, of which none is emitted. Allocates for new suffixes only; but an exact timer
  /// keeps every sample, and a timer or histogram on which threads often meet gets parts for them.
  virtual ReturnCode Emit(std::vector<MetricFieldValue>&& values);
  /// The same.
  virtual ReturnCode Emit(const std::vector<MetricFieldValue>& values);
  /// For compatible metrics alone: emits `value` on the one cell of the series. It stays as it is.
  virtual ReturnCode Emit(double& value);
  /// For rows of fields alone: emits numbers by field name, without a look at the types. Names that
  /// were not declared are ignored without a line.
  virtual ReturnCode EmitMap(const std::unordered_map<std::string, double>& values);
  /// The cells by name: a copy of the table, which shares the live cells. For the library.
  virtual CellMap Fields();
  /// The cell of a compatible metric's series; the shared no-op cell elsewhere. For the library.
  virtual CellPtr Data();
  /// What the series counts for among the cells of its metric: its suffixes, or 1.
  virtual size_t Size();
  /// Estimate of the bytes that the names and pointers of its cells occupy.
  virtual size_t MemSize();
  /// The form of the item, which is that of its metric.
  virtual MetricCoItemType Type();
  /// Emits one value as a list of it alone does, but without the list: the fastest form.
  virtual ReturnCode Emit(const MetricFieldValue& value);
  /// For the library: gives in `cell` the cell that values named `name` of type `type` go to; a
  /// suffix that is new is made. 53 for a bad suffix, 20 for a field that was not declared, 52 for
  /// a cell of another type, 70 where cells have no names.
  virtual ReturnCode FindCell(const std::string& name, MetricsType type, CellPtr& cell);
  /// The cells for a flush: as `Fields`, but into a list that keeps its memory from call to call.
  /// Good for as long as the item lives.
  virtual void ListCells(std::vector<CellRef>& cells);

  /// For values in braces: of one value the form for one, else a list.
  ReturnCode Emit(std::initializer_list<MetricFieldValue> values) {
    return values.size() == 1 ? Emit(*values.begin()) : Emit(std::vector<MetricFieldValue>(values));
  }

  // For the library. Any thread.
  /// Makes the cell for `type`; `bucket_count` counts for histograms alone, `use_ckms` for timers.
  /// An unknown type gives an error line and the no-op cell.
  static CellPtr CreateData(const MetricsType& type, bool use_ckms, unsigned short bucket_count);

  /// The shared cell that swallows everything. Never destroyed.
  static CellPtr NoopDataPtr();
  /// The shared empty table. Never destroyed, and not to be changed.
  static CellMap& NoopFields();

  /// Marks the series as alive now, for whoever feeds its cells directly. A dropped one stays
  /// dropped.
  void Refresh();
  /// Notes the second of an emission, `now`, which has found the series active.
  void MarkTime(int64_t now) {
    // A store of what is there already would take the line from other threads.
    if (last_update_.load(std::memory_order_relaxed) != now) {
      MarkNewSecond(now);
    }
  }
  /// Puts the series into flushes or hides it. One that was dropped stays hidden.
  void SetActive(bool active);

  /// Keeps expiry from erasing the series, until as many `LetGo`s: idle, it is only hidden. False
  /// when the library has dropped the item or is about to erase it: look it up anew.
  bool Hold();
  /// Whether anybody holds it now.
  bool IsHeld() const { return holders_.load(std::memory_order_relaxed) % kDropped > 0; }
  /// Ends one `Hold` that gave true.
  void LetGo() { holders_.fetch_sub(1, std::memory_order_release); }
  /// For the expiry, before erasing: false when somebody holds the item. Ends all `Hold`s.
  bool ClaimForErasing();
  /// Takes that back: the item stays.
  void Unclaim() { holders_.fetch_and(~kErasing, std::memory_order_release); }
  /// Whether the item has had no emission for more than 7200 seconds at second `now`.
  bool IsIdle(long now) const {
    return now - last_update_.load(std::memory_order_relaxed) > kExpireAfterSeconds;
  }

  /// Its tag values, in the sorted order of the declared names, which lie in its own allocation.
  /// REQUIRES: `MakeItem` of a collector has made it, which the dummy item is not.
  __attribute__((visibility("hidden"))) const PackedValues& values() const {
    assert(values_at_ != 0);
    return *reinterpret_cast<const PackedValues*>(reinterpret_cast<const char*>(this) + values_at_);
  }

  /// For the collector, once it has taken the item out of its table: no flush will see what is
  /// emitted from now on, so emissions are refused. What is under way may still get in.
  void Drop();
  /// Whether that was done: then it stays so.
  bool IsDropped() const { return (holders_.load() & kDropped) != 0; }
  /// Counts an emission on a dropped item as failed; 22 while its metric is blocked, else 23.
  ReturnCode RefuseDropped() const;

  // Constant after construction, unless the tags are not encoded when the item is made: then the
  // flush thread, and it alone, fills in the hash once, and for compatible metrics the tags too.
  // What no emission reads comes first, beside the counts of the item's owners, which look-ups
  // write; what all of them read comes after it, and is a line together with the first cell.
  std::string encoded_tags_;  ///< the tags in their packet form, where they are kept

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
  friend class MetricCollectorBase;  // which makes items, and puts the values after them

  // Bits of `holders_` above the number of holders.
  static constexpr uint32_t kDropped = 1U << 30;
  static constexpr uint32_t kErasing = 1U << 31;

  __attribute__((noinline)) void MarkNewSecond(int64_t now);

  uint16_t values_at_ = 0;  ///< the distance of the values from this object; constant once made
  std::atomic<uint32_t> holders_{0};

 public:
  MetricParts* const metric_;  ///< not owned; null for the dummy item
  int32_t tag_hash_;           ///< filled in as `encoded_tags_` is

 protected:
  /// What an emission asks first.
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

// An emission that finds its series active reads and, once a second, writes these: no lock may hide
// in them.
static_assert(std::atomic<int64_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free &&
              std::atomic<uint32_t>::is_always_lock_free);

/// The shared item that stands for every failure: emitting on it does nothing and answers 70. Any
/// thread. Never destroyed.
METRICS_API std::shared_ptr<MetricCollectorItem> DummyItem();

}  // namespace METRICS

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "metrics/metric_collector_item.h"
#include "metrics/packed_values.h"
#include "metrics/series_limit.h"
#include "metrics/tag_value_refs.h"
#include "util/concurrent_hashmap.h"
#include "util/line_allocator.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/taken_entries.h"

namespace METRICS {

class MetricParts;
struct ClientParts;

/// How the table of series reads the tag values in an item.
struct SeriesKeys {
  static const PackedValues& Of(const MetricCollectorItem& item) { return item.values(); }
  template <class Values>
  static bool Same(const MetricCollectorItem& item, const Values& values) {
    return item.values().Equals(values);
  }
  static std::vector<std::string> Copy(const MetricCollectorItem& item) {
    return item.values().ToVector();
  }
  /// Overflow series are beside the limit of a metric.
  static bool Counts(MetricCollectorItem& item) { return !IsOverflow(item.values(), item.Type()); }
  /// The counts of owners are before the item, the values after it.
  static void Fetch(const MetricCollectorItem* item) {
    const char* const counts = reinterpret_cast<const char*>(item) - sizeof(long);
    asm volatile("");  // gcc drops the calls of a function that does nothing but fetch
    for (size_t line = 0; line < kLines; ++line) {
      __builtin_prefetch(counts + line * kCacheLineBytes);
    }
  }

 private:
  static constexpr size_t kLines = 6;  // of a suffixed series with three values of 40 bytes
};

using SeriesMap =
    ConcurrentHashmap<std::vector<std::string>, MetricCollectorItem, TagValuesHash, SeriesKeys>;
/// A series: its tag values, in the sorted order of the declared names, and its item.
using Series = SeriesMap::KeyedValue;
/// A piece of the listing of a collector's series.
using SeriesItems = std::vector<std::shared_ptr<MetricCollectorItem>>;

/// What collectors need of the factory that holds them: the series of a client and their quota.
struct CollectorFactoryParts {
  std::atomic<unsigned long> total_series_{0};  ///< changed by the collectors' tables
  ClientParts* client_;                         ///< not owned
  const unsigned long max_series_;              ///< the quota
};

/// All series of one metric: from a vector of tag values to the series' item.
///
/// Threads: all operations from any thread. Owned by the collector factory and by the metric that
/// uses it; a flush holds copies. The metric may be gone while a collector is still held:
/// whoever is not emitting through the metric pins it first.
class MetricCollectorBase {
 public:
  MetricCollectorBase(CollectorFactoryParts* factory, MetricParts* metric);
  virtual ~MetricCollectorBase();
  MetricCollectorBase(const MetricCollectorBase&) = delete;
  MetricCollectorBase& operator=(const MetricCollectorBase&) = delete;

  virtual ReturnCode Init();
  /// All series; the pairs stay good whatever other threads erase meanwhile.
  virtual std::vector<Series> GetAll();
  virtual unsigned long SeriesSize();
  /// Number of cells in all series.
  virtual unsigned long DPSize();
  /// Drops all series. Items that callers hold refuse emissions from then on.
  virtual ReturnCode Clear();
  /// Drops one series, if it is there.
  virtual void Erase(const std::vector<std::string>& tag_values);
  /// The item of the series, made on first sight. Beyond the metric's own limit: that of its
  /// overflow series, counted. At the series quota, or with tags that are too long: the dummy item,
  /// counted as a failed emission, or null, by the kind of collector.
  virtual std::shared_ptr<MetricCollectorItem> GetOrCreate(
      const std::vector<std::string>& tag_values);
  virtual uint32_t Id();
  /// The item of a known series. Null for an unknown one, and always where a collector can only be
  /// asked with a vector: then `GetOrCreate` knows.
  virtual std::shared_ptr<MetricCollectorItem> Find(const TagValueRefs& tag_values);
  /// For the expiry: erases `item` if it is still what stands under `tag_values`. False when a
  /// handle holds it, or when an emission that came before the table was locked makes it live at
  /// second `now`. A collector that erases nothing leaves it as it is.
  virtual bool EraseIdle(MetricCollectorItem& item, long now);
  /// The overflow series, counted, if `tag_values` are new and the metric's own limit is reached.
  /// Null otherwise, and always where a collector can only be asked with a vector. Allocates
  /// nothing once the series is there.
  virtual std::shared_ptr<MetricCollectorItem> FindOverflow(const TagValueRefs& tag_values);
  /// `GetOrCreate` of values that are equal to `refs`, which may know their hash.
  virtual std::shared_ptr<MetricCollectorItem> GetOrCreateOf(
      const std::vector<std::string>& tag_values, const TagValueRefs& refs);
  /// As `Clear`, but the series live as long as what it gives, if the collector can do that.
  virtual TakenEntries TakeAll();
  /// Puts the next items of a listing in place of what `items` holds, at most 1024, or those of one
  /// tree; false at its end. Has each series that is in the collector from the first piece to the
  /// last, once. Whoever changes the collector waits for one piece at most.
  virtual bool NextPiece(ListCursor& cursor, SeriesItems& items);

  /// Emits on a series that is known, visible and validated, in the table's read section, if each
  /// value goes to a cell of its type that is there and has no lock. False where nothing was done.
  virtual bool EmitToKnown(const TagValueRefs& tag_values, const MetricFieldValue* values,
                           size_t count);

  /// A new item of this collector's kind, which is in no table yet; null for an unknown kind. It
  /// has a copy of `tag_values`.
  /// `encode_tags`: with its tags encoded already.
  std::shared_ptr<MetricCollectorItem> MakeItem(const std::vector<std::string>& tag_values,
                                                bool encode_tags) const;
  /// Whether the series quota is reached, with a Warn line if so.
  bool AtSeriesQuota() const;
  /// Counts that a look-up got the overflow series, with a Warn line an hour at most.
  void CountOverflow();
  /// Whether the tags of a series, its metric's and registry's included, add up to more than
  /// `kMaxSeriesTagBytes`, with an Error line if so.
  bool HasTooLongTags(const std::vector<std::string>& tag_values) const;
  /// The metric, kept alive by the result; null when it is being destroyed.
  std::shared_ptr<MetricParts> PinMetric() const { return metric_ref_.lock(); }

  // Constant after construction.
  CollectorFactoryParts* const factory_;  ///< not owned; outlives the collector
  MetricParts* metric_;                   ///< not owned
  const MetricCoItemType co_type_;
  const std::string name_;
  const bool pre_encode_tags_;  ///< encode a series' tags once, when it is made
  const size_t max_series_;     ///< the metric's own limit; 0 for none

  /// Another metric of the same full name has its series in packets: none is made here, and
  /// look-ups give null. Written by the factory under its lock.
  std::atomic<bool> standby_{false};

 protected:
  unsigned long CountCells();

 private:
  template <class Item>
  std::shared_ptr<MetricCollectorItem> MakeItemOf(const std::vector<std::string>& tag_values,
                                                  int32_t tag_hash,
                                                  const std::string& encoded_tags) const;

  const std::weak_ptr<MetricParts> metric_ref_;
  /// When `CountOverflow` last printed, in `CoarseMillis`; 0 before.
  std::atomic<uint32_t> overflow_told_{0};
};

/// The ordinary collector: a hash table under one reader-writer lock.
///
/// A known series costs one hash, one read lock and one copy of a shared pointer. Threads that
/// race past the quota test can exceed the quota by their number. The metric's own limit is tested
/// under the lock, and holds exactly.
class HashMapCollector final : public MetricCollectorBase {
 public:
  HashMapCollector(CollectorFactoryParts* factory, MetricParts* metric);
  ~HashMapCollector() override;

  std::vector<Series> GetAll() override;
  unsigned long SeriesSize() override;
  unsigned long DPSize() override { return CountCells(); }
  ReturnCode Clear() override;
  TakenEntries TakeAll() override;
  void Erase(const std::vector<std::string>& tag_values) override;
  std::shared_ptr<MetricCollectorItem> GetOrCreate(
      const std::vector<std::string>& tag_values) override;
  uint32_t Id() override { return 2; }
  std::shared_ptr<MetricCollectorItem> Find(const TagValueRefs& tag_values) override;
  std::shared_ptr<MetricCollectorItem> FindOverflow(const TagValueRefs& tag_values) override;
  bool EraseIdle(MetricCollectorItem& item, long now) override;
  std::shared_ptr<MetricCollectorItem> GetOrCreateOf(const std::vector<std::string>& tag_values,
                                                     const TagValueRefs& refs) override;
  bool NextPiece(ListCursor& cursor, SeriesItems& items) override;
  bool EmitToKnown(const TagValueRefs& tag_values, const MetricFieldValue* values,
                   size_t count) override;

 private:
  /// Inlined, as every look-up by values goes through it.
  [[gnu::always_inline]] std::shared_ptr<MetricCollectorItem> GetOrCreateHashed(
      const std::vector<std::string>& tag_values, uint32_t hash) {
    std::shared_ptr<MetricCollectorItem> item = series_->Get(tag_values, hash);
    if (item == nullptr) {
      item = CreateOrOverflow(tag_values, hash);
    }
    return item;
  }
  std::shared_ptr<MetricCollectorItem> CreateOrOverflow(const std::vector<std::string>& tag_values,
                                                        uint32_t hash);
  template <class Values, class Condition>
  void EraseSeriesIf(const Values& tag_values, Condition condition);
  /// Makes a series, or finds the one that another thread made. `one_too_many` tells that it did
  /// not because of the metric's own limit.
  std::shared_ptr<MetricCollectorItem> CreateSeries(const std::vector<std::string>& tag_values,
                                                    uint32_t hash, bool& one_too_many);
  template <class Values>
  bool IsOneTooMany(const Values& tag_values, uint32_t hash);
  /// The overflow series for `tag_values`, made if there is none.
  template <class Values>
  std::shared_ptr<MetricCollectorItem> Overflow(const Values& tag_values);

  const std::unique_ptr<SeriesMap> series_;
};

}  // namespace METRICS

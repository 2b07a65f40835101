#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "codec/fnv_hash.h"
#include "metrics/metric_collector_item.h"
#include "util/fork_guard.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_lock.h"
#include "util/metric_string_util.h"

namespace METRICS {

class Metric;
class MetricCollectorFactory;

/// Hash table of shared values with one reader-writer lock: chained, at most one entry per bucket
/// on average, never shrinking.
///
/// An entry owns its key and is itself shared, so what `GetAll` hands out stays whole while other
/// threads erase or clear. `total` counts the entries of all tables that share it and is changed
/// under the table's lock together with the table; it must outlive the table.
template <class K, class V, class Hash, class Eq>
class ConcurrentHashmap {
 public:
  /// A key and its value; the pointer keeps both alive.
  using KeyedValue = std::pair<const K&, std::shared_ptr<V>>;

  explicit ConcurrentHashmap(std::atomic<unsigned long>& total)
      : total_(total), buckets_(kFirstBuckets) {}

  ~ConcurrentHashmap() {
    if (InForkTeardown() && rwlock_.ReinitAfterFork()) {
      Abandon(buckets_);
      return;
    }
    Clear();
  }

  ConcurrentHashmap(const ConcurrentHashmap&) = delete;
  ConcurrentHashmap& operator=(const ConcurrentHashmap&) = delete;

  /// The value of `key`, or null. Allocates nothing.
  std::shared_ptr<V> Get(const K& key) {
    const size_t hash = Hash()(key);
    const FastReadGuard guard(rwlock_);
    const EntryPtr* const slot = Find(hash, key);
    return *slot == nullptr ? nullptr : (*slot)->value;
  }

  /// Adds a copy of `key` with `value`, or answers `kObjectExisted`.
  ReturnCode Insert(const K& key, const std::shared_ptr<V>& value) {
    const size_t hash = Hash()(key);
    auto entry = std::make_shared<Entry>(hash, key, value);
    const WriteGuard guard(rwlock_);
    if (*Find(hash, key) != nullptr) {
      return ReturnCode::kObjectExisted;
    }
    if (size_ >= buckets_.size()) {
      Rehash();
    }
    EntryPtr& head = buckets_[IndexOf(hash)];
    entry->next = std::move(head);
    head = std::move(entry);
    ++size_;
    total_.fetch_add(1);
    return ReturnCode::kOk;
  }

  /// All entries, in bucket order.
  std::vector<KeyedValue> GetAll() {
    std::vector<KeyedValue> all;
    const ReadGuard guard(rwlock_);
    all.reserve(size_);
    for (const EntryPtr& head : buckets_) {
      for (const EntryPtr* slot = &head; *slot != nullptr; slot = &(*slot)->next) {
        all.emplace_back((*slot)->key, std::shared_ptr<V>(*slot, (*slot)->value.get()));
      }
    }
    return all;
  }

  /// Takes `key` out and returns its value, or null when it was not there.
  std::shared_ptr<V> Erase(const K& key) {
    const size_t hash = Hash()(key);
    EntryPtr erased;  // dies behind the guard: it may be the last owner of the item
    const WriteGuard guard(rwlock_);
    EntryPtr* const slot = FindMutable(hash, key);
    if (*slot == nullptr) {
      return nullptr;
    }
    erased = std::move(*slot);
    *slot = std::move(erased->next);
    --size_;
    total_.fetch_sub(1);
    return erased->value;
  }

  /// Takes all entries out.
  void Clear() {
    const WriteGuard guard(rwlock_);
    for (EntryPtr& head : buckets_) {
      // One by one: a chain that frees itself would recurse.
      while (head != nullptr) {
        head = EntryPtr(std::move(head->next));
      }
    }
    total_.fetch_sub(size_);
    size_ = 0;
  }

  size_t Size() {
    const FastReadGuard guard(rwlock_);
    return size_;
  }

 private:
  struct Entry;
  using EntryPtr = std::shared_ptr<Entry>;
  struct Entry {
    Entry(size_t key_hash, const K& entry_key, const std::shared_ptr<V>& entry_value)
        : hash(key_hash), key(entry_key), value(entry_value) {}

    const size_t hash;
    const K key;
    const std::shared_ptr<V> value;
    EntryPtr next;  // guarded by the table's lock
  };

  static constexpr size_t kFirstBuckets = 8;  // a power of two, as all sizes

  size_t IndexOf(size_t hash) const METRICS_REQUIRES_SHARED(rwlock_) {
    return hash & (buckets_.size() - 1);
  }

  /// The slot that holds the entry of `key`, or the empty one at the end of its chain.
  const EntryPtr* Find(size_t hash, const K& key) const METRICS_REQUIRES_SHARED(rwlock_) {
    const EntryPtr* slot = &buckets_[IndexOf(hash)];
    while (*slot != nullptr && !((*slot)->hash == hash && Eq()((*slot)->key, key))) {
      slot = &(*slot)->next;
    }
    return slot;
  }
  EntryPtr* FindMutable(size_t hash, const K& key) METRICS_REQUIRES(rwlock_) {
    return const_cast<EntryPtr*>(Find(hash, key));
  }

  void Rehash() METRICS_REQUIRES(rwlock_) {
    std::vector<EntryPtr> old(buckets_.size() * 2);
    old.swap(buckets_);
    for (EntryPtr& head : old) {
      while (head != nullptr) {
        EntryPtr entry = std::move(head);
        head = std::move(entry->next);
        EntryPtr& target = buckets_[IndexOf(entry->hash)];
        entry->next = std::move(target);
        target = std::move(entry);
      }
    }
  }

  std::atomic<unsigned long>& total_;
  BiasedRwLock rwlock_;
  std::vector<EntryPtr> buckets_ METRICS_GUARDED_BY(rwlock_);
  size_t size_ METRICS_GUARDED_BY(rwlock_) = 0;
};

/// Hash of a vector of tag values: the strings chained without delimiters.
struct TagKVHash {
  size_t operator()(const std::vector<std::string>& tag_values) const {
    uint32_t hash = lattice_kit::codec::kFNVOffsetBasis;
    for (const std::string& value : tag_values) {
      hash = lattice_kit::codec::StrFNVHash(value, hash);
    }
    return hash;
  }
};

/// Equality of two vectors of tag values, string by string.
struct TagKVCmp {
  bool operator()(const std::vector<std::string>& a, const std::vector<std::string>& b) const {
    return METRICS::operator==(a, b);
  }
};

using SeriesMap =
    ConcurrentHashmap<std::vector<std::string>, MetricCollectorItem, TagKVHash, TagKVCmp>;
/// A series: its tag values, in the sorted order of the declared names, and its item.
using Series = SeriesMap::KeyedValue;

/// All series of one metric: from a vector of tag values to the series' item.
///
/// Threads: all operations from any thread. Owned by the collector factory and by the metric that
/// uses it; a flush holds copies. The metric may be gone while a collector is still held:
/// whoever is not emitting through the metric pins it first.
class MetricCollectorBase {
 public:
  MetricCollectorBase(MetricCollectorFactory* factory, Metric* metric);
  virtual ~MetricCollectorBase();
  MetricCollectorBase(const MetricCollectorBase&) = delete;
  MetricCollectorBase& operator=(const MetricCollectorBase&) = delete;

  virtual ReturnCode Init();
  /// All series; the pairs stay good whatever other threads erase meanwhile.
  virtual std::vector<Series> GetAll();
  virtual unsigned long SeriesSize();
  /// Number of cells in all series.
  virtual unsigned long DPSize();
  /// Drops all series. Items that callers hold go on taking emissions, which are lost.
  virtual ReturnCode Clear();
  /// Drops one series, if it is there.
  virtual void Erase(const std::vector<std::string>& tag_values);
  /// The item of the series, made on first sight. At the series quota: the dummy item, counted as
  /// a failed emission, or null, by the kind of collector.
  virtual std::shared_ptr<MetricCollectorItem> GetOrCreate(
      const std::vector<std::string>& tag_values);
  virtual uint32_t Id();

  /// A new item of this collector's kind, which is in no table yet; null for an unknown kind.
  /// `encode_tags`: with its tags encoded ahead.
  std::shared_ptr<MetricCollectorItem> MakeItem(const std::vector<std::string>& tag_values,
                                                bool encode_tags) const;
  /// Whether the series quota is reached, with a Warn line if so.
  bool AtSeriesQuota() const;
  /// The metric, kept alive by the result; null when it is being destroyed.
  std::shared_ptr<Metric> PinMetric() const { return metric_ref_.lock(); }

  // Constant after construction.
  MetricCollectorFactory* const factory_;  ///< not owned; outlives the collector
  Metric* metric_;                         ///< not owned
  const MetricCoItemType co_type_;
  const std::string name_;
  const bool pre_encode_tags_;  ///< encode a series' tags once, when it is made

 protected:
  unsigned long CountCells();

 private:
  const std::weak_ptr<Metric> metric_ref_;
};

/// The ordinary collector: a hash table under one reader-writer lock.
///
/// A known series costs one hash, one read lock and one copy of a shared pointer. Threads that
/// race past the quota test can exceed the quota by their number.
class HashMapCollector final : public MetricCollectorBase {
 public:
  HashMapCollector(MetricCollectorFactory* factory, Metric* metric);
  ~HashMapCollector() override;

  std::vector<Series> GetAll() override;
  unsigned long SeriesSize() override;
  unsigned long DPSize() override { return CountCells(); }
  ReturnCode Clear() override;
  void Erase(const std::vector<std::string>& tag_values) override;
  std::shared_ptr<MetricCollectorItem> GetOrCreate(
      const std::vector<std::string>& tag_values) override;
  uint32_t Id() override { return 2; }

 private:
  std::shared_ptr<MetricCollectorItem> CreateSeries(const std::vector<std::string>& tag_values);

  const std::unique_ptr<SeriesMap> series_;
};

}  // namespace METRICS

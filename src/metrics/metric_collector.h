#pragma once

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstdint>
#include <memory>
#include <new>
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
#include "util/short_text.h"

namespace METRICS {

class Metric;
class MetricCollectorFactory;

/// Hash table of shared values with one reader-writer lock: chained, at most one entry per bucket
/// on average, never shrinking.
///
/// An entry owns its key and is itself shared, so what `GetAll` hands out stays whole while other
/// threads erase or clear. The chains run through a list of all entries in the order of their
/// insertion, which is mostly that of their memory: walking it is cheap, and neither a search nor a
/// rehash touches entries that it is not after. `total` counts the entries of all tables that share
/// it and is changed under the table's lock together with the table; it must outlive the table.
template <class K, class V, class Hash, class Eq>
class ConcurrentHashmap {
 public:
  /// A key and its value; the pointer keeps both alive.
  using KeyedValue = std::pair<const K&, std::shared_ptr<V>>;

  explicit ConcurrentHashmap(std::atomic<unsigned long>& total)
      : total_(total), buckets_(kFirstBuckets, kNone) {}

  ~ConcurrentHashmap() {
    if (InForkTeardown() && rwlock_.ReinitAfterFork()) {
      Abandon(buckets_);
      Abandon(links_);
      return;
    }
    Clear();
  }

  ConcurrentHashmap(const ConcurrentHashmap&) = delete;
  ConcurrentHashmap& operator=(const ConcurrentHashmap&) = delete;

  /// What operations on `key` that take a hash are to be given. `Key` is K or what `Hash` and `Eq`
  /// take for one.
  template <class Key>
  static uint32_t HashOf(const Key& key) {
    return static_cast<uint32_t>(Hash()(key));
  }

  /// The value of `key`, or null. Allocates nothing.
  template <class Key>
  std::shared_ptr<V> Get(const Key& key) {
    return Get(key, HashOf(key));
  }
  template <class Key>
  std::shared_ptr<V> Get(const Key& key, uint32_t hash) {
    const FastReadGuard guard(rwlock_);
    const uint32_t place = Find(hash, key);
    return place == kNone ? nullptr : links_[place].entry->value;
  }

  /// Adds a copy of `key` with `value`, or answers `kObjectExisted`.
  ReturnCode Insert(const K& key, const std::shared_ptr<V>& value) {
    return Insert(key, value, HashOf(key));
  }
  ReturnCode Insert(const K& key, const std::shared_ptr<V>& value, uint32_t hash) {
    assert(hash == HashOf(key));
    auto entry = std::make_shared<const Entry>(key, value);
    const WriteGuard guard(rwlock_);
    if (Find(hash, key) != kNone) {
      return ReturnCode::kObjectExisted;
    }
    if (links_.size() >= buckets_.size()) {
      Rehash();
    }
    links_.push_back({std::move(entry), hash, kNone});
    Hang(static_cast<uint32_t>(links_.size() - 1));
    total_.fetch_add(1);
    return ReturnCode::kOk;
  }

  /// All entries.
  std::vector<KeyedValue> GetAll() {
    std::vector<KeyedValue> all;
    const ReadGuard guard(rwlock_);
    all.reserve(links_.size());
    for (size_t i = 0; i < links_.size(); ++i) {
      FetchAhead(i);
      const std::shared_ptr<const Entry>& entry = links_[i].entry;
      all.emplace_back(entry->key, std::shared_ptr<V>(entry, entry->value.get()));
    }
    return all;
  }

  /// Takes `key` out and returns its value, or null when it was not there.
  std::shared_ptr<V> Erase(const K& key) {
    return EraseIf(key, [](const V& /*value*/) { return true; });
  }
  /// The same if `condition`, which is asked with the table locked, holds for the value.
  template <class Condition>
  std::shared_ptr<V> EraseIf(const K& key, Condition condition) {
    const uint32_t hash = HashOf(key);
    std::shared_ptr<const Entry> erased;  // dies behind the guard: it may be the item's last owner
    const WriteGuard guard(rwlock_);
    const uint32_t place = Find(hash, key);
    if (place == kNone || !condition(*links_[place].entry->value)) {
      return nullptr;
    }
    *PointerTo(place) = links_[place].next;
    erased = std::move(links_[place].entry);
    const auto last = static_cast<uint32_t>(links_.size() - 1);
    if (place != last) {  // which takes its place
      *PointerTo(last) = place;
      links_[place] = std::move(links_[last]);
    }
    links_.pop_back();
    total_.fetch_sub(1);
    return erased->value;
  }

  /// Takes all entries out. Each value goes to an `OnEach` as it dies, without the lock; they live
  /// as long as what this gives. Without memory for that they die here.
  template <class OnEach>
  SeriesRemains TakeAll() {
    auto* const taken = new (std::nothrow) std::vector<Link>();
    if (taken == nullptr) {
      std::vector<Link> cleared;
      TakeAll(cleared);
      Bury<OnEach>(cleared);
      return NoRemains();
    }
    TakeAll(*taken);
    return {taken, [](void* links) {
              const std::unique_ptr<std::vector<Link>> own(static_cast<std::vector<Link>*>(links));
              Bury<OnEach>(*own);
            }};
  }
  void Clear() {
    std::vector<Link> cleared;
    TakeAll(cleared);
  }

  size_t Size() {
    const FastReadGuard guard(rwlock_);
    return links_.size();
  }

 private:
  struct Entry {
    Entry(const K& entry_key, const std::shared_ptr<V>& entry_value)
        : key(entry_key), value(entry_value) {}

    const K key;
    const std::shared_ptr<V> value;
  };

  struct Link {
    std::shared_ptr<const Entry> entry;
    uint32_t hash;
    uint32_t next;  ///< place of the next one of its bucket
  };

  static constexpr size_t kFirstBuckets = 8;  // a power of two, as all sizes
  static constexpr uint32_t kNone = UINT32_MAX;

  template <class OnEach>
  static void Bury(std::vector<Link>& links) {
    for (Link& link : links) {
      OnEach()(*link.entry->value);
      link.entry.reset();  // while it is near
    }
  }

  void TakeAll(std::vector<Link>& taken) {
    const WriteGuard guard(rwlock_);
    total_.fetch_sub(links_.size());
    taken.swap(links_);
    buckets_.assign(kFirstBuckets, kNone);  // in the memory that it has
  }

  size_t IndexOf(uint32_t hash) const METRICS_REQUIRES_SHARED(rwlock_) {
    return hash & (buckets_.size() - 1);
  }

  template <class Key>
  uint32_t Find(uint32_t hash, const Key& key) const METRICS_REQUIRES_SHARED(rwlock_) {
    uint32_t place = buckets_[IndexOf(hash)];
    while (place != kNone) {
      const Link& link = links_[place];
      if (link.hash == hash && Eq()(link.entry->key, key)) {
        break;
      }
      place = link.next;
    }
    return place;
  }

  /// Puts `links_[place]` at the head of its bucket.
  void Hang(uint32_t place) METRICS_REQUIRES(rwlock_) {
    uint32_t& head = buckets_[IndexOf(links_[place].hash)];
    links_[place].next = head;
    head = place;
  }

  /// What points to `links_[place]`, in its bucket or in a link of it.
  uint32_t* PointerTo(uint32_t place) METRICS_REQUIRES(rwlock_) {
    uint32_t* pointer = &buckets_[IndexOf(links_[place].hash)];
    while (*pointer != place) {
      pointer = &links_[*pointer].next;
    }
    return pointer;
  }

  void Rehash() METRICS_REQUIRES(rwlock_) {
    buckets_.assign(buckets_.size() * 2, kNone);
    for (uint32_t place = 0; place < links_.size(); ++place) {
      Hang(place);
    }
  }

  /// For a walk that has come to `links_[place]`: has an entry behind it fetched, with the counts
  /// of its owners, which stand ahead of it.
  void FetchAhead(size_t place) const METRICS_REQUIRES_SHARED(rwlock_) {
    constexpr size_t kAhead = 16;
    if (place + kAhead < links_.size()) {
      const Entry* const entry = links_[place + kAhead].entry.get();
      __builtin_prefetch(reinterpret_cast<const char*>(entry) - sizeof(long), 1);
      __builtin_prefetch(&entry->value, 1);
    }
  }

  std::atomic<unsigned long>& total_;
  BiasedRwLock rwlock_;
  std::vector<uint32_t> buckets_ METRICS_GUARDED_BY(rwlock_);  ///< place of the first one of each
  std::vector<Link> links_ METRICS_GUARDED_BY(rwlock_);
};

/// A vector of tag values that is not made: the strings stand where the caller has them.
class TagValueRefs {
 public:
  /// The most tags that a metric may declare.
  static constexpr size_t kMax = 255;

  /// `count` values, all of them `value`. REQUIRES: `count` is at most `kMax`.
  TagValueRefs(size_t count, const std::string& value) : count_(count) {
    std::fill_n(values_, count, &value);
  }
  void Set(size_t place, const std::string& value) {
    values_[place] = &value;
    if (place < hashed_) {
      SetHash(0, lattice_kit::codec::kFNVOffsetBasis);
    }
  }
  /// Tells what the first `count` values hash to.
  void SetHash(size_t count, uint32_t hash) {
    hashed_ = count;
    hash_ = hash;
  }
  size_t size() const { return count_; }
  const std::string& operator[](size_t place) const { return *values_[place]; }
  const std::string* const* begin() const { return values_; }
  const std::string* const* end() const { return values_ + count_; }

  /// `TagKVHash` of the values, computed once.
  uint32_t Hash() const {
    for (; hashed_ < count_; ++hashed_) {
      hash_ = lattice_kit::codec::StrFNVHash(*values_[hashed_], hash_);
    }
    return hash_;
  }

 private:
  const size_t count_;
  mutable size_t hashed_ = 0;
  mutable uint32_t hash_ = lattice_kit::codec::kFNVOffsetBasis;  ///< of the first `hashed_` values
  const std::string* values_[kMax];                              // filled as far as `count_`
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
  size_t operator()(const TagValueRefs& tag_values) const { return tag_values.Hash(); }
};

/// Equality of two vectors of tag values, string by string.
struct TagKVCmp {
  bool operator()(const std::vector<std::string>& a, const std::vector<std::string>& b) const {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), SameText);
  }
  bool operator()(const std::vector<std::string>& a, const TagValueRefs& b) const {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](const std::string& x, const std::string* y) { return SameText(x, *y); });
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
  /// Drops all series. Items that callers hold refuse emissions from then on.
  virtual ReturnCode Clear();
  /// Drops one series, if it is there.
  virtual void Erase(const std::vector<std::string>& tag_values);
  /// The item of the series, made on first sight. At the series quota, or with tags that are too
  /// long: the dummy item, counted as a failed emission, or null, by the kind of collector.
  virtual std::shared_ptr<MetricCollectorItem> GetOrCreate(
      const std::vector<std::string>& tag_values);
  virtual uint32_t Id();
  /// The item of a known series. Null for an unknown one, and always where a collector can only be
  /// asked with a vector: then `GetOrCreate` knows.
  virtual std::shared_ptr<MetricCollectorItem> Find(const TagValueRefs& tag_values);
  /// For the expiry: erases `item` if it is still what stands under `tag_values`. False when a
  /// handle holds it, or when an emission that came before the table was locked makes it live at
  /// second `now`. A collector that erases nothing leaves it as it is.
  virtual bool EraseIdle(const std::vector<std::string>& tag_values, MetricCollectorItem& item,
                         long now);
  /// `GetOrCreate` of values that are equal to `refs`, which may know their hash.
  virtual std::shared_ptr<MetricCollectorItem> GetOrCreateOf(
      const std::vector<std::string>& tag_values, const TagValueRefs& refs);
  /// As `Clear`, but the series live as long as what it gives, if the collector can do that.
  virtual SeriesRemains TakeAll();

  /// A new item of this collector's kind, which is in no table yet; null for an unknown kind.
  /// `encode_tags`: with its tags encoded ahead.
  std::shared_ptr<MetricCollectorItem> MakeItem(const std::vector<std::string>& tag_values,
                                                bool encode_tags) const;
  /// Whether the series quota is reached, with a Warn line if so.
  bool AtSeriesQuota() const;
  /// Whether the tags of a series, its metric's and registry's included, add up to more than
  /// `kMaxSeriesTagBytes`, with an Error line if so.
  bool HasTooLongTags(const std::vector<std::string>& tag_values) const;
  /// The metric, kept alive by the result; null when it is being destroyed.
  std::shared_ptr<Metric> PinMetric() const { return metric_ref_.lock(); }

  // Constant after construction.
  MetricCollectorFactory* const factory_;  ///< not owned; outlives the collector
  Metric* metric_;                         ///< not owned
  const MetricCoItemType co_type_;
  const std::string name_;
  const bool pre_encode_tags_;  ///< encode a series' tags once, when it is made

  /// Another metric of the same full name has its series in packets: none is made here, and
  /// look-ups give null. Written by the factory under its lock.
  std::atomic<bool> standby_{false};

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
  SeriesRemains TakeAll() override;
  void Erase(const std::vector<std::string>& tag_values) override;
  std::shared_ptr<MetricCollectorItem> GetOrCreate(
      const std::vector<std::string>& tag_values) override;
  uint32_t Id() override { return 2; }
  std::shared_ptr<MetricCollectorItem> Find(const TagValueRefs& tag_values) override;
  bool EraseIdle(const std::vector<std::string>& tag_values, MetricCollectorItem& item,
                 long now) override;
  std::shared_ptr<MetricCollectorItem> GetOrCreateOf(const std::vector<std::string>& tag_values,
                                                     const TagValueRefs& refs) override;

 private:
  /// Inlined, as every look-up by values goes through it.
  [[gnu::always_inline]] std::shared_ptr<MetricCollectorItem> GetOrCreateHashed(
      const std::vector<std::string>& tag_values, uint32_t hash) {
    std::shared_ptr<MetricCollectorItem> item = series_->Get(tag_values, hash);
    if (item == nullptr) {
      item = CreateSeries(tag_values, hash);
    }
    return item;
  }
  template <class Condition>
  void EraseSeriesIf(const std::vector<std::string>& tag_values, Condition condition);
  std::shared_ptr<MetricCollectorItem> CreateSeries(const std::vector<std::string>& tag_values,
                                                    uint32_t hash);

  const std::unique_ptr<SeriesMap> series_;
};

}  // namespace METRICS

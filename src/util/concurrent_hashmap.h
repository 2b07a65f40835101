#pragma once

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "util/fork_guard.h"
#include "util/metric_error_code.h"
#include "util/metric_lock.h"
#include "util/taken_entries.h"

namespace METRICS {

/// How far a listing in pieces has come; a new one is at the beginning.
struct ListCursor {
  size_t next = 0;
  size_t end = SIZE_MAX;  ///< set by the first piece: what is added later is left out
};

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
    if (!RepairInForkTeardown(rwlock_, buckets_, links_)) {
      Clear();
    }
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
    const uint32_t index = Find(hash, key);
    return index == kNone ? nullptr : links_[index].entry->value;
  }

  /// Calls `use` with the value of `key` in the read section: it must be short, and not come back
  /// to the table. False, without a call, for an unknown key.
  template <class Key, class Use>
  bool Visit(const Key& key, uint32_t hash, Use use) {
    const FastReadGuard guard(rwlock_);
    const uint32_t index = Find(hash, key);
    if (index == kNone) {
      return false;
    }
    use(*links_[index].entry->value);
    return true;
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
    LinkIntoBucket(static_cast<uint32_t>(links_.size() - 1));
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

  /// The most values that a piece of a listing has.
  static constexpr size_t kPiece = 1024;

  /// Puts the next values of a listing in place of what `piece` holds; false at its end. A writer
  /// waits for one piece at most.
  bool NextPiece(ListCursor& cursor, std::vector<std::shared_ptr<V>>& piece) {
    piece.clear();
    piece.reserve(kPiece);
    const ReadGuard guard(rwlock_);
    cursor.end = std::min(cursor.end, links_.size());
    for (; cursor.next < cursor.end && piece.size() < kPiece; ++cursor.next) {
      FetchAhead(cursor.next);
      const std::shared_ptr<const Entry>& entry = links_[cursor.next].entry;
      piece.emplace_back(entry, entry->value.get());
    }
    return !piece.empty();
  }

  /// Takes `key` out and returns its value, or null when it was not there.
  std::shared_ptr<V> Erase(const K& key) {
    return EraseIf(key, [](const V& /*value*/) { return true; });
  }
  /// The same if `condition`, which is asked with the table locked, holds for the value.
  template <class Condition>
  std::shared_ptr<V> EraseIf(const K& key, Condition condition) {
    const uint32_t hash = HashOf(key);
    std::shared_ptr<const Entry> erased;  // dies after the guard: it may be the value's last owner
    const WriteGuard guard(rwlock_);
    const uint32_t index = Find(hash, key);
    if (index == kNone || !condition(*links_[index].entry->value)) {
      return nullptr;
    }
    *PointerToLink(index) = links_[index].next;
    erased = std::move(links_[index].entry);
    const auto last = static_cast<uint32_t>(links_.size() - 1);
    if (index != last) {  // which moves there
      *PointerToLink(last) = index;
      links_[index] = std::move(links_[last]);
    }
    links_.pop_back();
    total_.fetch_sub(1);
    return erased->value;
  }

  /// Takes all entries out. Each value goes to an `OnEach` as it dies, without the lock; they live
  /// as long as what this gives. Without memory for that they die here.
  template <class OnEach>
  TakenEntries TakeAll() {
    auto* const taken = new (std::nothrow) std::vector<Link>();
    if (taken == nullptr) {
      std::vector<Link> cleared;
      TakeAll(cleared);
      Bury<OnEach>(cleared);
      return NoEntries();
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
    uint32_t next;  ///< index of the next one of its bucket
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

  size_t BucketOf(uint32_t hash) const METRICS_REQUIRES_SHARED(rwlock_) {
    return hash & (buckets_.size() - 1);
  }

  template <class Key>
  uint32_t Find(uint32_t hash, const Key& key) const METRICS_REQUIRES_SHARED(rwlock_) {
    uint32_t index = buckets_[BucketOf(hash)];
    while (index != kNone) {
      const Link& link = links_[index];
      if (link.hash == hash && Eq()(link.entry->key, key)) {
        break;
      }
      index = link.next;
    }
    return index;
  }

  /// Puts `links_[index]` at the head of its bucket.
  void LinkIntoBucket(uint32_t index) METRICS_REQUIRES(rwlock_) {
    uint32_t& head = buckets_[BucketOf(links_[index].hash)];
    links_[index].next = head;
    head = index;
  }

  /// What points to `links_[index]`, in its bucket or in a link of it.
  uint32_t* PointerToLink(uint32_t index) METRICS_REQUIRES(rwlock_) {
    uint32_t* pointer = &buckets_[BucketOf(links_[index].hash)];
    while (*pointer != index) {
      pointer = &links_[*pointer].next;
    }
    return pointer;
  }

  void Rehash() METRICS_REQUIRES(rwlock_) {
    buckets_.assign(buckets_.size() * 2, kNone);
    for (uint32_t index = 0; index < links_.size(); ++index) {
      LinkIntoBucket(index);
    }
  }

  /// For a walk that has come to `links_[index]`: has a later entry fetched, with the counts of
  /// its owners, which stand before it in memory.
  void FetchAhead(size_t index) const METRICS_REQUIRES_SHARED(rwlock_) {
    constexpr size_t kAhead = 16;
    if (index + kAhead < links_.size()) {
      const Entry* const entry = links_[index + kAhead].entry.get();
      __builtin_prefetch(reinterpret_cast<const char*>(entry) - sizeof(long), 1);
      __builtin_prefetch(&entry->value, 1);
    }
  }

  std::atomic<unsigned long>& total_;
  BiasedRwLock rwlock_;
  std::vector<uint32_t> buckets_ METRICS_GUARDED_BY(rwlock_);  ///< index of the first one of each
  std::vector<Link> links_ METRICS_GUARDED_BY(rwlock_);
};

}  // namespace METRICS

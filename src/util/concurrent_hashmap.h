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

#include "util/chunked_list.h"
#include "util/fork_guard.h"
#include "util/metric_error_code.h"
#include "util/metric_lock.h"
#include "util/slot_table.h"
#include "util/taken_entries.h"

namespace METRICS {

/// How far a listing in pieces has come; a new one is at the beginning.
struct ListCursor {
  size_t next = 0;
  size_t end = SIZE_MAX;  ///< set by the first piece
};

/// Hash table of shared values that carry their keys, with one reader-writer lock.
///
/// A list owns the values; a table of slots beside it finds them. Neither an addition nor a piece
/// of a listing holds up other threads for longer than some tens of microseconds, whatever the
/// size: memory is made and given back without the lock. Without memory for it an addition throws
/// `std::bad_alloc` and changes nothing. `total` counts the values of all tables that share it and
/// is changed under the table's lock together with the table; it must outlive the table.
///
/// `Keys` says how a value has its key: `Of(value)` is it, as `Hash` takes it; `Same(value, key)`
/// compares it with a K or what stands for one; `Copy(value)` makes a K of it; `Fetch(value)` asks
/// for the memory that these read; `Counts(value)` tells two sorts of keys apart, each of which has
/// a limit of its own.
template <class K, class V, class Hash, class Keys>
class alignas(64) ConcurrentHashmap {
 public:
  /// A key and its value; the pointer keeps both alive.
  using KeyedValue = std::pair<const K&, std::shared_ptr<V>>;
  /// The most values that a piece of a listing has.
  static constexpr size_t kPiece = ChunkedList<V>::kChunk;

  explicit ConcurrentHashmap(std::atomic<unsigned long>& total) : total_(total) {}

  ~ConcurrentHashmap() {
    if (!RepairInForkTeardown(rwlock_, slots_, list_)) {
      Clear();
    }
  }

  ConcurrentHashmap(const ConcurrentHashmap&) = delete;
  ConcurrentHashmap& operator=(const ConcurrentHashmap&) = delete;

  /// What operations on `key` that take a hash are to be given. `Key` is K or what stands for one.
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
  [[gnu::always_inline]] std::shared_ptr<V> Get(const Key& key, uint32_t hash) {
    const FastReadGuard guard(rwlock_);
    const ChunkedList<V>* const list = &list_;
    const Slot* const found = slots_.Find(hash, [&](const Slot& slot) {
      list->Fetch(slot.index);  // comes at the same time as the value
      return IsOf(slot, key);
    });
    return found == nullptr ? nullptr : list_[found->index];
  }

  /// Calls `use` with the value of `key` in the read section: it must be short, and not come back
  /// to the table. False, without a call, for an unknown key.
  template <class Key, class Use>
  [[gnu::always_inline]] bool Visit(const Key& key, uint32_t hash, Use use) {
    const FastReadGuard guard(rwlock_);
    const Slot* const found = Find(hash, key);
    if (found == nullptr) {
      return false;
    }
    use(*found->value);
    return true;
  }

  /// Adds `value`, or answers `kObjectExisted` where there is one of the same key.
  ReturnCode Insert(const std::shared_ptr<V>& value) {
    return Insert(value, HashOf(Keys::Of(*value)));
  }
  /// The same, or `kNotSupported` for a new key where there are `most` of its sort.
  ReturnCode Insert(const std::shared_ptr<V>& value, uint32_t hash, size_t most = SIZE_MAX) {
    assert(hash == HashOf(Keys::Of(*value)));
    const bool counts = Keys::Counts(*value);
    for (Room room;; room.Make()) {
      const WriteGuard guard(rwlock_);
      if (Find(hash, Keys::Of(*value)) != nullptr) {
        return ReturnCode::kObjectExisted;
      }
      if (SizeOf(counts) >= most) {
        return ReturnCode::kNotSupported;
      }
      if (HasRoom(hash, room)) {
        slots_.Add({value.get(), hash, list_.Add(value)});
        uncounted_ += counts ? 0 : 1;
        total_.fetch_add(1);
        return ReturnCode::kOk;
      }
    }
  }
  /// Whether `key`, which is of the sort that `counts` tells, is new where there are `most` of it.
  template <class Key>
  bool IsOneTooMany(const Key& key, uint32_t hash, bool counts, size_t most) {
    const FastReadGuard guard(rwlock_);
    return SizeOf(counts) >= most && Find(hash, key) == nullptr;
  }

  /// Puts the next values of a listing in place of what `piece` holds; false at its end. A writer
  /// waits for one piece at most. What is in the table from the first piece to the last is in one
  /// of them.
  bool NextPiece(ListCursor& cursor, std::vector<std::shared_ptr<V>>& piece) {
    piece.clear();
    piece.reserve(kPiece);
    const ReadGuard guard(rwlock_);
    cursor.end = std::min(cursor.end, list_.ChunkCount());
    while (cursor.next < cursor.end && piece.empty()) {
      list_.Each(cursor.next++, [&](const std::shared_ptr<V>& value) { piece.push_back(value); });
    }
    return !piece.empty();
  }

  /// All values, with copies of their keys: one list of all pieces.
  std::vector<KeyedValue> GetAll() {
    std::vector<KeyedValue> all;
    all.reserve(Size());
    ListCursor cursor;
    for (std::vector<std::shared_ptr<V>> piece; NextPiece(cursor, piece);) {
      for (std::shared_ptr<V>& value : piece) {
        const auto listed = std::make_shared<const Listed>(std::move(value));
        all.emplace_back(listed->key, std::shared_ptr<V>(listed, listed->value.get()));
      }
    }
    return all;
  }

  /// Takes `key` out and returns its value, or null when it was not there.
  template <class Key>
  std::shared_ptr<V> Erase(const Key& key) {
    return EraseIf(key, [](const V& /*value*/) { return true; });
  }
  /// The same if `condition`, which is asked with the table locked, holds for the value.
  template <class Key, class Condition>
  std::shared_ptr<V> EraseIf(const Key& key, Condition condition) {
    const uint32_t hash = HashOf(key);
    Contents emptied;  // these die after the guard
    typename ChunkedList<V>::Removed removed;
    const WriteGuard guard(rwlock_);
    const Slot* const found = Find(hash, key);
    if (found == nullptr || !condition(*found->value)) {
      return nullptr;
    }
    uncounted_ -= Keys::Counts(*found->value) ? 0 : 1;
    list_.Remove(found->index, removed);
    slots_.Remove(found);
    total_.fetch_sub(1);
    if (list_.Size() == 0) {
      Exchange(emptied);
    }
    return std::move(removed.entry);
  }

  /// Takes all values out, at once however many they are. Each goes to an `OnEach` as it dies,
  /// without the lock; they live as long as what this gives. Without memory for that they die here.
  template <class OnEach>
  TakenEntries TakeAll() {
    auto* const taken = new (std::nothrow) Contents();
    if (taken == nullptr) {
      Contents cleared;
      TakeAll(cleared);
      cleared.list.DropEach(OnEach());
      return NoEntries();
    }
    TakeAll(*taken);
    return {taken, [](void* contents) {
              const std::unique_ptr<Contents> own(static_cast<Contents*>(contents));
              own->list.DropEach(OnEach());
            }};
  }
  void Clear() {
    Contents cleared;
    TakeAll(cleared);
  }

  size_t Size() {
    const FastReadGuard guard(rwlock_);
    return list_.Size();
  }

 private:
  using Slot = typename SlotTable<V>::Slot;

  struct Contents {
    ChunkedList<V> list;
    SlotTable<V> slots;
    size_t uncounted = 0;
  };
  struct Room {
    typename ChunkedList<V>::Room list;
    typename SlotTable<V>::Room slots;

    void Make() {
      list.Make();
      slots.Make();
    }
  };
  struct Listed {
    explicit Listed(std::shared_ptr<V> listed)
        : value(std::move(listed)), key(Keys::Copy(*value)) {}

    const std::shared_ptr<V> value;
    const K key;
  };

  /// Asks for all that a look-up reads of the value at once.
  template <class Key>
  [[gnu::always_inline]] static bool IsOf(const Slot& slot, const Key& key) {
    Keys::Fetch(slot.value);
    return Keys::Same(*slot.value, key);
  }
  template <class Key>
  const Slot* Find(uint32_t hash, const Key& key) const METRICS_REQUIRES_SHARED(rwlock_) {
    return slots_.Find(hash, [&](const Slot& slot) { return IsOf(slot, key); });
  }
  size_t SizeOf(bool counts) const METRICS_REQUIRES_SHARED(rwlock_) {
    return counts ? list_.Size() - uncounted_ : uncounted_;
  }
  bool HasRoom(uint32_t hash, Room& room) METRICS_REQUIRES(rwlock_) {
    const bool listed = list_.MakeRoom(room.list);
    return slots_.MakeRoom(hash, room.slots) && listed;
  }
  void Exchange(Contents& contents) METRICS_REQUIRES(rwlock_) {
    list_.Swap(contents.list);
    slots_.Swap(contents.slots);
    std::swap(uncounted_, contents.uncounted);
  }
  void TakeAll(Contents& taken) {
    const WriteGuard guard(rwlock_);
    total_.fetch_sub(list_.Size());
    Exchange(taken);
  }

  // A look-up reads these and the first bytes of the lock, on one line.
  SlotTable<V> slots_ METRICS_GUARDED_BY(rwlock_);
  std::atomic<unsigned long>& total_;
  BiasedRwLock rwlock_;
  ChunkedList<V> list_ METRICS_GUARDED_BY(rwlock_);
  size_t uncounted_ METRICS_GUARDED_BY(rwlock_) = 0;  ///< of the values, those that do not count
};

}  // namespace METRICS

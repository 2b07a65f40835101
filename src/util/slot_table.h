#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "util/spare_array.h"

namespace METRICS {

/// Finds values by 32 bits of hash: a directory, indexed by the upper bits, of open-addressed
/// arrays of slots, the leaves, which are searched from the lower bits on (R. Fagin, J. Nievergelt,
/// N. Pippenger, H. R. Strong, "Extendible Hashing - A Fast Access Method for Dynamic Files", ACM
/// TODS 4/3, 1979). A leaf of `kMostSlots` that is full is split in two by the next bit. So no
/// addition moves more than one leaf, and the directory.
///
/// Not thread-safe: its owner guards it. Does not own the values, and never shrinks.
template <class V>
class SlotTable {
 public:
  /// Hash bits beside the pointer: hardly any value is looked at but the one that is searched.
  struct Slot {
    V* value = nullptr;  ///< null: free
    uint32_t hash = 0;
    uint32_t index = 0;  ///< for the owner
  };

 private:
  /// A leaf stands in all entries of the directory whose first `depth` bits are its own.
  struct Leaf {
    Slot* slots = nullptr;
    uint32_t mask = 0;  ///< number of slots - 1
    uint32_t depth : 5;
    uint32_t used : 27;  ///< kept in its first entry

    Leaf() : depth(0), used(0) {}
  };

 public:
  /// What `MakeRoom` may need.
  struct Room {
    SpareArray<Slot> slots;
    SpareArray<Slot> more_slots;
    SpareArray<Leaf> leaves;

    void Make() {
      slots.Make();
      more_slots.Make();
      leaves.Make();
    }
  };

  SlotTable() = default;
  SlotTable(const SlotTable&) = delete;
  SlotTable& operator=(const SlotTable&) = delete;
  ~SlotTable() {
    Leaf* const leaves = Leaves();
    for (size_t i = 0; i < size_t{1} << depth_; i += EntriesOf(leaves[i])) {
      delete[] leaves[i].slots;
    }
  }

  void Swap(SlotTable& other) {
    std::swap(depth_, other.depth_);
    std::swap(only_, other.only_);
    directory_.swap(other.directory_);
  }

  /// The slot with `hash` for whose value `same` says so, or null.
  template <class Same>
  [[gnu::always_inline]] const Slot* Find(uint32_t hash, Same same) const {
    const Leaf& leaf = Leaves()[EntryOf(hash)];
    if (leaf.slots == nullptr) {
      return nullptr;
    }
    for (uint32_t i = hash;; ++i) {
      const Slot& slot = leaf.slots[i & leaf.mask];
      if (slot.value == nullptr) {
        return nullptr;
      }
      if (slot.hash == hash && same(slot)) {
        return &slot;
      }
    }
  }

  /// Makes sure that `Add` has room for a value with `hash`; false, with the table whole, where
  /// `room` has too little.
  bool MakeRoom(uint32_t hash, Room& room) {
    while (IsFull(FirstEntry(hash))) {
      if (!Grow(hash, room)) {
        return false;
      }
    }
    return true;
  }
  /// REQUIRES: `MakeRoom` was true.
  void Add(const Slot& slot) {
    Leaf& leaf = FirstEntry(slot.hash);
    assert(!IsFull(leaf));
    Place(leaf, slot);
  }
  /// Removes what `Find` gave. Those after it that are not where their search begins move up.
  void Remove(const Slot* found) {
    Leaf& leaf = FirstEntry(found->hash);
    auto hole = static_cast<uint32_t>(found - leaf.slots);
    for (uint32_t i = hole + 1;; ++i) {
      const Slot& slot = leaf.slots[i & leaf.mask];
      if (slot.value == nullptr) {
        break;
      }
      if (((i - slot.hash) & leaf.mask) >= ((i - hole) & leaf.mask)) {
        leaf.slots[hole & leaf.mask] = slot;
        hole = i;
      }
    }
    leaf.slots[hole & leaf.mask] = Slot();
    --leaf.used;
  }

 private:
  static constexpr uint32_t kFirstSlots = 8;  // a power of two, as all sizes
  static constexpr uint32_t kMostSlots = 4096;
  // Beyond it leaves grow instead: so many equal bits are no good hash.
  static constexpr uint32_t kMostDepth = 16;

  const Leaf* Leaves() const { return depth_ == 0 ? &only_ : directory_.get(); }
  Leaf* Leaves() { return depth_ == 0 ? &only_ : directory_.get(); }
  size_t EntryOf(uint32_t hash) const { return uint64_t{hash} << depth_ >> 32; }
  size_t EntriesOf(const Leaf& leaf) const { return size_t{1} << (depth_ - leaf.depth); }
  Leaf& FirstEntry(uint32_t hash) {
    Leaf* const leaf = &Leaves()[EntryOf(hash)];
    return leaf[-static_cast<ptrdiff_t>(EntryOf(hash) & (EntriesOf(*leaf) - 1))];
  }
  static uint32_t SlotsOf(const Leaf& leaf) { return leaf.slots == nullptr ? 0 : leaf.mask + 1; }
  /// At 11 of 16 a search that finds its value looks at 2 slots, and at hardly more than 3 with any
  /// hashes. It ends at a free slot, of which there are some at any size.
  static bool IsFull(const Leaf& leaf) { return (leaf.used + 1U) * 16 > SlotsOf(leaf) * 11; }

  static void Place(Leaf& leaf, const Slot& slot) {
    uint32_t i = slot.hash;
    while (leaf.slots[i & leaf.mask].value != nullptr) {
      ++i;
    }
    leaf.slots[i & leaf.mask] = slot;
    ++leaf.used;
  }

  bool Grow(uint32_t hash, Room& room) {
    const Leaf& leaf = FirstEntry(hash);
    if (SlotsOf(leaf) < kMostSlots || leaf.depth == kMostDepth) {
      return Widen(FirstEntry(hash), room);
    }
    return (leaf.depth < depth_ || DoubleDirectory(room)) && Split(FirstEntry(hash), room);
  }
  static Leaf MakeLeaf(std::unique_ptr<Slot[]> slots, uint32_t count, uint32_t depth) {
    Leaf leaf;
    leaf.slots = slots.release();
    leaf.mask = count - 1;
    leaf.depth = depth & 31;
    return leaf;
  }
  bool Widen(Leaf& leaf, Room& room) {
    const uint32_t wanted = std::max(kFirstSlots, 2 * SlotsOf(leaf));
    if (!room.slots.Has(wanted)) {
      return false;
    }
    Leaf wider =
        MakeLeaf(room.slots.Exchange(std::unique_ptr<Slot[]>(leaf.slots)), wanted, leaf.depth);
    for (uint32_t i = 0; i < SlotsOf(leaf); ++i) {
      if (leaf.slots[i].value != nullptr) {
        Place(wider, leaf.slots[i]);
      }
    }
    std::fill_n(&leaf, EntriesOf(leaf), wider);
    return true;
  }
  bool Split(Leaf& leaf, Room& room) {
    const uint32_t count = SlotsOf(leaf);
    const bool has_slots = room.slots.Has(count);
    if (!room.more_slots.Has(count) || !has_slots) {
      return false;
    }
    const Slot* const slots = leaf.slots;
    const uint32_t depth = leaf.depth + 1U;
    Leaf halves[2] = {
        MakeLeaf(room.slots.Exchange(std::unique_ptr<Slot[]>(leaf.slots)), count, depth),
        MakeLeaf(room.more_slots.Exchange(nullptr), count, depth)};
    for (uint32_t i = 0; i < count; ++i) {
      if (slots[i].value != nullptr) {
        Place(halves[slots[i].hash >> (32 - depth) & 1], slots[i]);
      }
    }
    const size_t half = EntriesOf(leaf) / 2;
    std::fill_n(&leaf + half, half, halves[1]);
    std::fill_n(&leaf, half, halves[0]);
    return true;
  }
  bool DoubleDirectory(Room& room) {
    const size_t wanted = size_t{2} << depth_;
    if (!room.leaves.Has(wanted)) {
      return false;
    }
    std::unique_ptr<Leaf[]> wider = room.leaves.Exchange(nullptr);
    for (size_t i = 0; i < wanted; ++i) {
      wider[i] = Leaves()[i / 2];
    }
    directory_.swap(wider);
    room.leaves.Exchange(std::move(wider));
    ++depth_;
    return true;
  }

  uint32_t depth_ = 0;
  Leaf only_;  ///< the directory as long as it has one entry
  std::unique_ptr<Leaf[]> directory_;
};

}  // namespace METRICS

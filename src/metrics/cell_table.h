#pragma once

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "metrics/cell_ptr.h"
#include "metrics/metric_data.h"
#include "util/metric_common.h"
#include "util/short_text.h"

namespace METRICS {

/// A cell as the flush walks it, good for as long as its item lives.
struct CellRef {
  std::string_view name;
  MetricBasicData* cell = nullptr;
  MetricsType type = MetricsType::kUnknown;
};

/// The cells of one series by name, in the order in which they were made. Cells are added, and
/// stay, each under the address that it got.
///
/// Threads: any may look for cells and list them while one at a time adds some. A cell is published
/// once it is complete; nothing that a reader can see is changed after that. Made for the few cells
/// that a series has, mostly one, which is kept in the table itself. A fork in the middle of a
/// change leaves a table that can be read and destroyed.
class CellTable {
 public:
  /// A cell under its name.
  class Entry {
   public:
    Entry() = default;
    ~Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    std::string_view Name() const {
      const uint8_t state = state_.load(std::memory_order_acquire);
      assert(state != kNone);
      return state == kFar ? FarName() : std::string_view(text_, state - 1U);
    }
    /// The type of the cell.
    MetricsType Type() const { return static_cast<MetricsType>(type_); }
    const CellPtr& Cell() const { return cell_; }

   private:
    friend class CellTable;
    // Values of `state_` beside the length of a name plus 1.
    static constexpr uint8_t kNone = 0;  ///< not published: all else is another thread's
    static constexpr uint8_t kFar = UINT8_MAX;
    static constexpr size_t kTextBytes = 14;

    bool IsPublished() const { return state_.load(std::memory_order_acquire) != kNone; }
    /// Whether it is published, and under this name.
    bool IsNamed(std::string_view name) const {
      const uint8_t state = state_.load(std::memory_order_acquire);
      return name.size() <= kTextBytes
                 ? state == name.size() + 1 && SameBytes(text_, name.data(), name.size())
                 : state == kFar && SameText(FarName(), name);
    }
    std::string_view FarName() const;
    void Publish(std::string_view name, CellPtr cell);

    CellPtr cell_;
    char text_[kTextBytes] = {};  ///< the name, or where it is and its length
    uint8_t type_ = 0;
    std::atomic<uint8_t> state_{kNone};  ///< written last
  };

  CellTable() = default;
  ~CellTable();
  CellTable(const CellTable&) = delete;
  CellTable& operator=(const CellTable&) = delete;

  /// The cell of `name`, or null. Looks first where the caller expects it: at index `likely`.
  const Entry* Find(std::string_view name, size_t likely) const {
    const Entry* const expected = likely == 0 ? &first_ : EntryAt(likely);
    return expected != nullptr && expected->IsNamed(name) ? expected : Search(name);
  }
  /// Adds a cell; nothing is changed if it throws. REQUIRES: `name` is not there; no other thread
  /// adds.
  const Entry& Add(std::string_view name, CellPtr cell);
  /// Adds a cell, or replaces the one that has the name. REQUIRES: no other thread knows the table.
  void Set(std::string_view name, CellPtr cell);
  /// Makes room for as many cells. REQUIRES: as `Set`, for an empty table.
  void Reserve(size_t count);

  size_t Size() const {
    if (!first_.IsPublished()) {
      return 0;
    }
    const Block* const more = more_.load(std::memory_order_acquire);
    return 1 + (more != nullptr ? more->count.load(std::memory_order_acquire) : 0);
  }
  /// Calls `visit(entry)` for each, in the order in which they were made.
  template <class Visit>
  void ForEach(Visit visit) const {
    if (!first_.IsPublished()) {
      return;
    }
    visit(first_);
    for (const Block* block = more_.load(std::memory_order_acquire); block != nullptr;
         block = block->next.load(std::memory_order_acquire)) {
      for (uint32_t i = 0; i < block->capacity && block->Entries()[i].IsPublished(); ++i) {
        visit(block->Entries()[i]);
      }
    }
  }
  CellMap ToMap() const;
  /// Bytes of names and pointers, as the statistics count them.
  size_t MemSize() const;

  /// What a cell is accounted for in the statistics beside its name.
  static constexpr size_t kPointerBytes = 16;

 private:
  struct Index;

  /// The head of a block of entries, which come right after it.
  struct Block {
    explicit Block(uint32_t entries) : capacity(entries) {}

    Entry* Entries() const { return reinterpret_cast<Entry*>(const_cast<Block*>(this) + 1); }

    const uint32_t capacity;
    std::atomic<uint32_t> count{0};  ///< of the first block: entries in it and all after it
    std::atomic<Block*> next{nullptr};
    std::atomic<Index*> index{nullptr};  ///< of the first block: of all entries; null while few
  };

  static constexpr uint32_t kFirstBlock = 3;  // entries; each block after it takes twice the bytes
  static constexpr size_t kCompared = 12;     // more cells than that are found by an index

  static constexpr uint32_t CapacityAfter(uint32_t capacity) { return 2 * capacity + 1; }
  static Block* MakeBlock(uint32_t capacity);
  static void DropBlock(Block* block);

  /// The entry of that number, published or not, or null where there is no room for one.
  Entry* EntryAt(size_t index) const {
    assert(index > 0);
    Block* block = more_.load(std::memory_order_acquire);
    for (--index; block != nullptr && index >= block->capacity;
         block = block->next.load(std::memory_order_acquire)) {
      index -= block->capacity;
    }
    return block == nullptr ? nullptr : &block->Entries()[index];
  }
  const Entry* Search(std::string_view name) const;
  /// The entry of that number. REQUIRES: it is the next one to be added.
  Entry& RoomFor(size_t index);
  /// An index with room for one more than the `count` entries that are there; null while few.
  Index* IndexFor(size_t count);

  Entry first_;
  std::atomic<Block*> more_{nullptr};
};

// Two entries share a line, and a block of them fills whole chunks of the heap.
static_assert(sizeof(CellTable::Entry) == 32);

}  // namespace METRICS

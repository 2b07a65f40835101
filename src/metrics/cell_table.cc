#include "metrics/cell_table.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <utility>

namespace METRICS {

/// Entries by the hashes of their names, at most every second slot of them taken. It grows by
/// another one in its place; the old ones stay for those who still search in them.
struct CellTable::Index {
  using Slot = std::atomic<const Entry*>;

  Index(size_t count, Index* smaller)
      : mask(count - 1), slots(std::make_unique<Slot[]>(count)), older(smaller) {}

  bool HasRoom() const { return 2 * (used + 1) <= mask + 1; }
  const Entry* Find(std::string_view name) const {
    for (size_t i = HashOf(name);; ++i) {
      const Entry* const entry = slots[i & mask].load(std::memory_order_acquire);
      if (entry == nullptr || entry->IsNamed(name)) {
        return entry;
      }
    }
  }
  /// REQUIRES: `HasRoom()`.
  void Add(const Entry& entry) {
    size_t i = HashOf(entry.Name());
    while (slots[i & mask].load(std::memory_order_relaxed) != nullptr) {
      ++i;
    }
    slots[i & mask].store(&entry, std::memory_order_release);
    ++used;
  }
  static size_t HashOf(std::string_view name) { return std::hash<std::string_view>()(name); }

  const size_t mask;
  size_t used = 0;  ///< of interest to whoever adds
  const std::unique_ptr<Slot[]> slots;
  const std::unique_ptr<Index> older;
};

CellTable::Entry::~Entry() {
  if (state_.load(std::memory_order_relaxed) == kFar) {
    delete[] FarName().data();
  }
}

std::string_view CellTable::Entry::FarName() const {
  const char* text = nullptr;
  uint32_t size = 0;
  static_assert(sizeof(text) + sizeof(size) <= kTextBytes);
  std::memcpy(&text, text_, sizeof(text));
  std::memcpy(&size, text_ + sizeof(text), sizeof(size));
  return {text, size};
}

void CellTable::Entry::Publish(std::string_view name, CellPtr cell) {
  uint8_t state = kFar;
  if (name.size() <= kTextBytes) {
    std::copy(name.begin(), name.end(), text_);
    state = static_cast<uint8_t>(name.size() + 1);
  } else {
    auto* const text = new char[name.size()];
    std::copy(name.begin(), name.end(), text);
    const auto size = static_cast<uint32_t>(name.size());
    std::memcpy(text_, &text, sizeof(text));
    std::memcpy(text_ + sizeof(text), &size, sizeof(size));
  }
  type_ = static_cast<uint8_t>(cell->Type());
  cell_ = std::move(cell);
  state_.store(state, std::memory_order_release);
}

CellTable::~CellTable() {
  Block* block = more_.load(std::memory_order_acquire);
  if (block != nullptr) {
    delete block->index.load(std::memory_order_acquire);
  }
  while (block != nullptr) {
    Block* const next = block->next.load(std::memory_order_acquire);
    DropBlock(block);
    block = next;
  }
}

CellTable::Block* CellTable::MakeBlock(uint32_t capacity) {
  void* const memory = ::operator new(sizeof(Block) + capacity * sizeof(Entry));
  auto* const block = new (memory) Block(capacity);
  std::uninitialized_default_construct_n(block->Entries(), capacity);
  return block;
}

void CellTable::DropBlock(Block* block) {
  std::destroy_n(block->Entries(), block->capacity);
  block->~Block();
  ::operator delete(block);
}

const CellTable::Entry* CellTable::Search(std::string_view name) const {
  const Block* const more = more_.load(std::memory_order_acquire);
  const Index* const index =
      more != nullptr ? more->index.load(std::memory_order_acquire) : nullptr;
  if (index != nullptr) {
    return index->Find(name);
  }
  const Entry* found = nullptr;
  ForEach([&](const Entry& entry) {
    if (found == nullptr && entry.IsNamed(name)) {
      found = &entry;
    }
  });
  return found;
}

const CellTable::Entry& CellTable::Add(std::string_view name, CellPtr cell) {
  assert(Search(name) == nullptr);
  const size_t count = Size();
  Entry& entry = RoomFor(count);
  Index* const index = IndexFor(count);
  entry.Publish(name, std::move(cell));
  if (index != nullptr) {
    index->Add(entry);
  }
  if (count > 0) {
    more_.load(std::memory_order_relaxed)
        ->count.store(static_cast<uint32_t>(count), std::memory_order_release);
  }
  return entry;
}

CellTable::Entry& CellTable::RoomFor(size_t index) {
  if (index == 0) {
    return first_;
  }
  std::atomic<Block*>* link = &more_;
  uint32_t capacity = kFirstBlock;
  for (--index;; link = &link->load(std::memory_order_relaxed)->next) {
    Block* const block = link->load(std::memory_order_relaxed);
    if (block == nullptr) {
      break;
    }
    if (index < block->capacity) {
      return block->Entries()[index];
    }
    index -= block->capacity;
    capacity = CapacityAfter(block->capacity);
  }
  Block* const made = MakeBlock(capacity);
  link->store(made, std::memory_order_release);
  return made->Entries()[0];
}

CellTable::Index* CellTable::IndexFor(size_t count) {
  if (count < kCompared) {
    return nullptr;
  }
  std::atomic<Index*>& current = more_.load(std::memory_order_relaxed)->index;
  Index* const known = current.load(std::memory_order_relaxed);
  if (known != nullptr && known->HasRoom()) {
    return known;
  }
  const size_t slots = known != nullptr ? 2 * (known->mask + 1) : 4 * (kCompared + 4);
  auto made = std::make_unique<Index>(slots, known);
  ForEach([&](const Entry& entry) { made->Add(entry); });
  current.store(made.get(), std::memory_order_release);
  return made.release();
}

void CellTable::Set(std::string_view name, CellPtr cell) {
  const Entry* const known = Search(name);
  if (known == nullptr) {
    Add(name, std::move(cell));
    return;
  }
  auto* const entry = const_cast<Entry*>(known);
  entry->type_ = static_cast<uint8_t>(cell->Type());
  entry->cell_ = std::move(cell);
}

void CellTable::Reserve(size_t count) {
  assert(Size() == 0 && more_.load(std::memory_order_relaxed) == nullptr);
  if (count < 2) {
    return;
  }
  uint32_t capacity = kFirstBlock;
  while (capacity + 1 < count) {
    capacity = CapacityAfter(capacity);
  }
  more_.store(MakeBlock(capacity), std::memory_order_relaxed);
}

CellMap CellTable::ToMap() const {
  CellMap map;
  map.reserve(Size());
  ForEach([&](const Entry& entry) { map.emplace(entry.Name(), entry.Cell()); });
  return map;
}

size_t CellTable::MemSize() const {
  size_t size = 0;
  ForEach([&](const Entry& entry) { size += entry.Name().size() + kPointerBytes; });
  return size;
}

}  // namespace METRICS

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>

#include "util/line_allocator.h"

namespace METRICS {

/// How many cells of one sort are spread. Threads: any.
class SpreadCells {
 public:
  static constexpr uint32_t kMost = 1024;

  /// False when there are as many as there may be.
  bool Take() {
    if (count_.fetch_add(1, std::memory_order_relaxed) < kMost) {
      return true;
    }
    GiveBack();
    return false;
  }
  void GiveBack() { count_.fetch_sub(1, std::memory_order_relaxed); }

 private:
  std::atomic<uint32_t> count_{0};
};

/// Of how many parts a cell that is spread now should be: one for each thread with a slot and for
/// some more, a power of two. At most `kMostParts`.
constexpr uint32_t kMostParts = 128;
uint32_t PartsForThreads();

/// Failures of threads to get at a cell in one interval that are a reason to spread it.
constexpr uint8_t kCollisionsToSpread = 64;

/// Parts of one cell that many threads emit on at the same time, each on lines of its own. Slot i
/// (`ThreadSlot`) has part i, and slots from the number of parts on share them; so do threads
/// without one.
///
/// Owns its parts, which are safe to use as they are themselves. Not to be shared between cells.
template <class Part>
class alignas(kCacheLineBytes) SpreadParts {
 public:
  /// `count` parts of `bytes` each, made from `args`. Null without memory, and when `cells` has no
  /// more to give. REQUIRES: `count` is a power of two.
  template <class... Args>
  static std::unique_ptr<SpreadParts> Make(SpreadCells& cells, uint32_t count, size_t bytes,
                                           const Args&... args) {
    static_assert(std::is_nothrow_constructible_v<Part, const Args&...>);
    if (!cells.Take()) {
      return nullptr;
    }
    const size_t stride = (bytes + kCacheLineBytes - 1) / kCacheLineBytes * kCacheLineBytes;
    void* const memory = ::operator new(sizeof(SpreadParts) + count * stride,
                                        std::align_val_t(kCacheLineBytes), std::nothrow);
    if (memory == nullptr) {
      cells.GiveBack();
      return nullptr;
    }
    std::unique_ptr<SpreadParts> made(new (memory) SpreadParts(cells, count, stride));
    for (uint32_t slot = 0; slot < count; ++slot) {
      new (&(*made)[slot]) Part(args...);
    }
    return made;
  }
  ~SpreadParts() {
    ForEach([](Part& part) { part.~Part(); });
    cells_.GiveBack();
  }
  // NOLINTNEXTLINE(misc-new-delete-overloads): `Make` allocates, for the parts as well
  static void operator delete(void* memory) {
    ::operator delete(memory, std::align_val_t(kCacheLineBytes));
  }
  SpreadParts(const SpreadParts&) = delete;
  SpreadParts& operator=(const SpreadParts&) = delete;

  uint32_t Count() const { return last_ + 1; }
  /// The part of `slot`, which may be `kNoThreadSlot`.
  Part& operator[](uint32_t slot) {
    return *reinterpret_cast<Part*>(reinterpret_cast<char*>(this + 1) + (slot & last_) * stride_);
  }
  template <class Visit>
  void ForEach(Visit visit) {
    for (uint32_t slot = 0; slot < Count(); ++slot) {
      visit((*this)[slot]);
    }
  }

 private:
  SpreadParts(SpreadCells& cells, uint32_t count, size_t stride)
      : cells_(cells), stride_(stride), last_(count - 1) {}

  SpreadCells& cells_;
  const size_t stride_;  ///< bytes from part to part, which begin right after this
  const uint32_t last_;  ///< part
};

}  // namespace METRICS

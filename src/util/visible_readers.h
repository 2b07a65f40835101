#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace METRICS {

/// What a thread is reading right now: a few slots that name a lock each, on lines of its own.
///
/// A reader that has written its lock's address here is seen by that lock's writers without having
/// written anything that another thread writes. Each `ThreadSlot` has a row; threads without one
/// are not visible. A forked child finds all slots empty: the kernel wipes them, so that nobody
/// waits for readers that do not exist.
using ReaderSlot = std::atomic<const void*>;
struct alignas(128) ReaderRow {  // two lines: processors fetch them in pairs
  static constexpr size_t kSlots = 8;
  ReaderSlot slots[kSlots];
};

static_assert(sizeof(ReaderRow) == 128 && ReaderSlot::is_always_lock_free);

/// Whether the kernel wipes the rows in children; without that they are not to be used. False until
/// the library's own initialisation.
extern std::atomic<bool> reader_rows_usable;

/// Row of this thread; null while it has none.
extern __thread ReaderRow* t_reader_row __attribute__((tls_model("initial-exec")));
ReaderRow* TakeReaderRow();

/// Makes this thread visible as a reader of `lock`; null when it has no row, or no slot of it free.
/// REQUIRES: slots are emptied in the reverse order, so that those in use are the first of a row.
inline ReaderSlot* EnterAsReader(const void* lock) {
  ReaderRow* const row = t_reader_row != nullptr ? t_reader_row : TakeReaderRow();
  if (row == nullptr) {
    return nullptr;
  }
  for (ReaderSlot& slot : row->slots) {
    if (slot.load(std::memory_order_relaxed) == nullptr) {
      slot.store(lock);
      return &slot;
    }
  }
  return nullptr;
}

/// Waits until no thread is visible as a reader of `lock`. REQUIRES: readers that become visible
/// from now on give way.
void WaitForReaders(const void* lock);

}  // namespace METRICS

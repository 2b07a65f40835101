#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace METRICS {

/// What a thread is reading right now: a few slots that name a lock each, on lines of its own.
///
/// A reader that has written its lock's address here is seen by that lock's writers without having
/// written anything that another reader touches. Threads share a row only beyond `kReaderRows` of
/// them, hence the compare-exchange. A forked child finds all slots empty: the kernel wipes them,
/// so that nobody waits for readers that do not exist.
using ReaderSlot = std::atomic<const void*>;
struct alignas(128) ReaderRow {  // two lines: processors fetch them in pairs
  static constexpr size_t kSlots = 8;
  ReaderSlot slots[kSlots];
};
constexpr size_t kReaderRows = 64;

/// Whether the kernel wipes the rows in children; without that they are not to be used. False until
/// the library's own initialisation.
extern std::atomic<bool> reader_rows_usable;

/// A number of this thread, counted from 0 in the order in which threads ask.
uint32_t AssignThreadNumber();

// Not the general model: the variable is small, and read by every emission.
inline thread_local uint32_t thread_number_plus_one __attribute__((tls_model("initial-exec"))) = 0;

inline uint32_t ThreadNumber() {
  if (thread_number_plus_one == 0) {
    thread_number_plus_one = AssignThreadNumber() + 1;
  }
  return thread_number_plus_one - 1;
}

extern ReaderRow reader_rows[kReaderRows];

/// Makes this thread visible as a reader of `lock`; null when all slots of its row are taken.
inline ReaderSlot* EnterAsReader(const void* lock) {
  for (ReaderSlot& slot : reader_rows[ThreadNumber() % kReaderRows].slots) {
    const void* free = nullptr;
    if (slot.load(std::memory_order_relaxed) == nullptr &&
        slot.compare_exchange_strong(free, lock)) {
      return &slot;
    }
  }
  return nullptr;
}

/// Waits until no thread is visible as a reader of `lock`. REQUIRES: readers that become visible
/// from now on give way.
void WaitForReaders(const void* lock);

}  // namespace METRICS

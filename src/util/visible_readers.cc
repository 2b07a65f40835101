#include "util/visible_readers.h"

#include <sched.h>
#include <sys/mman.h>

#include <algorithm>
#include <ctime>

namespace METRICS {
namespace {

constexpr size_t kPageBytes = 4096;

std::atomic<uint32_t> assigned_numbers{0};

// A reader is gone after some nanoseconds unless it was put off the processor; then it may need
// this one, and a thread of real-time priority only gives it up by sleeping.
void WaitForReader(const ReaderSlot& slot, const void* lock) {
  constexpr int kSpins = 100;
  constexpr int kYields = 100;
  constexpr timespec kNap{0, 50000};
  for (int turn = 0; slot.load(std::memory_order_acquire) == lock; ++turn) {
    if (turn < kSpins) {
      __builtin_ia32_pause();
    } else if (turn < kSpins + kYields) {
      ::sched_yield();
    } else {
      ::nanosleep(&kNap, nullptr);
    }
  }
}

}  // namespace

// Whole pages, of which nothing else is to be wiped.
alignas(kPageBytes) ReaderRow reader_rows[kReaderRows];
static_assert(sizeof(reader_rows) % kPageBytes == 0);

std::atomic<bool> reader_rows_usable{::madvise(reader_rows, sizeof(reader_rows), MADV_WIPEONFORK) ==
                                     0};

uint32_t AssignThreadNumber() { return assigned_numbers.fetch_add(1); }

void WaitForReaders(const void* lock) {
  const size_t rows = std::min<size_t>(assigned_numbers.load(), kReaderRows);
  for (size_t row = 0; row < rows; ++row) {
    for (const ReaderSlot& slot : reader_rows[row].slots) {
      if (slot.load() == lock) {
        WaitForReader(slot, lock);
      }
    }
  }
}

}  // namespace METRICS

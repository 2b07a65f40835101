#include "util/visible_readers.h"

#include <sys/mman.h>

#include "util/wait.h"

namespace METRICS {
namespace {

constexpr size_t kPageBytes = 4096;
// One for each thread that has a slot, and as many for all others.
constexpr uint32_t kRows = 2 * kThreadSlots;

// Whole pages, of which nothing else is to be wiped.
alignas(kPageBytes) ReaderRow rows[kRows];
static_assert(sizeof(rows) % kPageBytes == 0);

std::atomic<uint32_t> rows_taken{0};  ///< the first ones: nobody ever used those behind

}  // namespace

std::atomic<bool> reader_rows_usable{::madvise(rows, sizeof(rows), MADV_WIPEONFORK) == 0};

__thread ReaderRow* t_reader_row = nullptr;

ReaderRow* TakeReaderRow() {
  static std::atomic<uint32_t> next_shared{0};
  uint32_t row = ThreadSlot();
  if (row >= kThreadSlots) {
    row = kThreadSlots + next_shared.fetch_add(1) % kThreadSlots;
  }
  uint32_t taken = rows_taken.load();
  while (taken <= row && !rows_taken.compare_exchange_weak(taken, row + 1)) {
  }
  t_reader_row = &rows[row];
  return t_reader_row;
}

void WaitForReaders(const void* lock) {
  const uint32_t taken = rows_taken.load();
  for (uint32_t row = 0; row < taken; ++row) {
    for (const ReaderSlot& slot : rows[row].slots) {
      if (slot.load() == lock) {
        WaitUntil([&slot, lock] { return slot.load(std::memory_order_acquire) != lock; });
      }
    }
  }
}

}  // namespace METRICS

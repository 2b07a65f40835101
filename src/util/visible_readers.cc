#include "util/visible_readers.h"

#include <sys/mman.h>

#include "util/thread_end.h"
#include "util/thread_slot.h"
#include "util/wait.h"

namespace METRICS {
namespace {

constexpr size_t kPageBytes = 4096;

// Whole pages, of which nothing else is to be wiped. They take no memory until they are used.
alignas(kPageBytes) ReaderRow rows[kThreadSlots];
static_assert(sizeof(rows) % kPageBytes == 0);

__thread ThreadEndAction t_at_end __attribute__((tls_model("initial-exec")));

}  // namespace

std::atomic<bool> reader_rows_usable{::madvise(rows, sizeof(rows), MADV_WIPEONFORK) == 0};

__thread ReaderRow* t_reader_row = nullptr;

ReaderRow* TakeReaderRow() {
  const uint32_t row = ThreadSlot();
  // The last action is the first to run: the row is let go before its slot is handed on.
  if (row == kNoThreadSlot || !AtThreadEnd(t_at_end, [] { t_reader_row = nullptr; })) {
    return nullptr;
  }
  t_reader_row = &rows[row];
  return t_reader_row;
}

void WaitForReaders(const void* lock) {
  ForEachTakenSlot([lock](uint32_t row) {
    for (const ReaderSlot& slot : rows[row].slots) {
      const void* const read = slot.load();
      if (read == nullptr) {
        return;  // those after it are empty too
      }
      if (read == lock) {
        WaitUntil([&slot, lock] { return slot.load(std::memory_order_acquire) != lock; });
      }
    }
  });
}

}  // namespace METRICS

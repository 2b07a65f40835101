#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "util/thread_slot.h"

namespace METRICS {

/// What the threads of one slot have added to one spread sum.
struct SumPart {
  std::atomic<long> integers;
  std::atomic<double> reals;
};

/// A sum to which many threads add at the same time can be spread: each `ThreadSlot` has a row of
/// parts, the number of the sum selects one of them, and only threads of that slot add to it.
///
/// Threads: any. Memory: 16 KB for each slot, of which the pages that are used become resident. The
/// parts of a number that is free are 0.
constexpr uint32_t kSpreadSums = 1024;
constexpr uint32_t kNoSpreadSum = UINT32_MAX;

namespace sum_parts_internal {

constexpr size_t kPageBytes = 4096;
struct alignas(kPageBytes) Row {
  SumPart parts[kSpreadSums];
};
extern Row rows[kThreadSlots];

static_assert(std::atomic<long>::is_always_lock_free && std::atomic<double>::is_always_lock_free);

}  // namespace sum_parts_internal

/// The number of a spread sum, or `kNoSpreadSum` when all are taken. The caller sees its parts at
/// 0; it passes the number on so that others see them, too.
uint32_t TakeSpreadSum();

/// Sets the parts of `sum` to 0, for its next owner.
/// REQUIRES: everything that was added happened before this call, and nothing will be any more.
void GiveBackSpreadSum(uint32_t sum);

/// REQUIRES: a slot that was taken, and a number that `TakeSpreadSum` gave.
inline SumPart& PartOf(uint32_t sum, uint32_t slot) {
  return sum_parts_internal::rows[slot].parts[sum];
}

/// Calls `visit(part)` for all parts of `sum` that can differ from 0, in the order of the slots.
template <class Visit>
void ForEachPart(uint32_t sum, Visit visit) {
  const uint32_t slots = UsedThreadSlots();
  for (uint32_t slot = 0; slot < slots; ++slot) {
    visit(PartOf(sum, slot));
  }
}

}  // namespace METRICS

#include "util/thread_slot.h"

#include "util/thread_end.h"

namespace METRICS {
namespace {

using thread_slot_internal::kWordBits;
using thread_slot_internal::taken_slots;

#define METRICS_OF_THREAD __thread __attribute__((tls_model("initial-exec")))
METRICS_OF_THREAD ThreadEndAction t_at_end;
METRICS_OF_THREAD bool t_takes_none = false;
#undef METRICS_OF_THREAD

uint32_t TakeFreeSlot() {
  for (uint32_t word = 0; word < kThreadSlots / kWordBits; ++word) {
    uint64_t taken = taken_slots[word].load(std::memory_order_relaxed);
    while (~taken != 0) {
      const auto bit = static_cast<uint32_t>(__builtin_ctzll(~taken));
      if (taken_slots[word].compare_exchange_weak(taken, taken | uint64_t{1} << bit)) {
        return word * kWordBits + bit;
      }
    }
  }
  return kNoThreadSlot;
}

void HandOn(uint32_t slot) {
  taken_slots[slot / kWordBits].fetch_and(~(uint64_t{1} << slot % kWordBits),
                                          std::memory_order_release);
}

void HandOnOwn() {
  HandOn(thread_slot_internal::t_slot);
  thread_slot_internal::t_slot = kNoThreadSlot;
}

}  // namespace

namespace thread_slot_internal {

std::atomic<uint64_t> taken_slots[kThreadSlots / kWordBits];
__thread uint32_t t_slot = kNoThreadSlot;

uint32_t TakeSlot() {
  if (t_takes_none) {
    return kNoThreadSlot;
  }
  const uint32_t slot = TakeFreeSlot();
  if (slot == kNoThreadSlot) {
    return slot;
  }
  if (!AtThreadEnd(t_at_end, &HandOnOwn)) {
    t_takes_none = true;
    HandOn(slot);
    return kNoThreadSlot;
  }
  t_slot = slot;
  return slot;
}

}  // namespace thread_slot_internal

void DoWithoutThreadSlot() { t_takes_none = true; }

}  // namespace METRICS

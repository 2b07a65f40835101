#include "util/thread_slot.h"

#include "util/thread_end.h"

namespace METRICS {
namespace {

using thread_slot_internal::slots;
using thread_slot_internal::used_slots;

#define METRICS_OF_THREAD __thread __attribute__((tls_model("initial-exec")))
METRICS_OF_THREAD ThreadEndAction t_at_end;
METRICS_OF_THREAD bool t_takes_none = false;
#undef METRICS_OF_THREAD

void CountAsUsed(uint32_t slot) {
  uint32_t used = used_slots.load(std::memory_order_relaxed);
  while (used <= slot && !used_slots.compare_exchange_weak(used, slot + 1)) {
  }
}

void HandOnOwn() {
  slots.GiveBack(thread_slot_internal::t_slot);
  thread_slot_internal::t_slot = kNoThreadSlot;
}

}  // namespace

namespace thread_slot_internal {

NumberPool<kThreadSlots> slots;
std::atomic<uint32_t> used_slots{0};
__thread uint32_t t_slot = kNoThreadSlot;

uint32_t TakeSlot() {
  if (t_takes_none) {
    return kNoThreadSlot;
  }
  const uint32_t slot = slots.Take();
  if (slot == kNoThreadSlot) {
    return slot;
  }
  if (!AtThreadEnd(t_at_end, &HandOnOwn)) {
    t_takes_none = true;
    slots.GiveBack(slot);
    return kNoThreadSlot;
  }
  CountAsUsed(slot);
  t_slot = slot;
  return slot;
}

}  // namespace thread_slot_internal

void DoWithoutThreadSlot() { t_takes_none = true; }

}  // namespace METRICS

#include "util/thread_slot.h"

#include <atomic>

namespace METRICS::thread_slot_internal {
namespace {

/// A bit for each slot that is free.
std::atomic<uint32_t> free_slots{0xffffffff};
static_assert(kThreadSlots == 32);

/// Hands the thread's slot on at its end.
class SlotGuard {
 public:
  SlotGuard() = default;
  ~SlotGuard() {
    // What is emitted by later destructors of this thread has to do without.
    t_slot_plus_one = kThreadSlots + 1;
    if (slot_ < kThreadSlots) {
      free_slots.fetch_or(uint32_t{1} << slot_, std::memory_order_release);
    }
  }
  SlotGuard(const SlotGuard&) = delete;
  SlotGuard& operator=(const SlotGuard&) = delete;

  uint32_t Take() {
    uint32_t free = free_slots.load(std::memory_order_relaxed);
    while (free != 0) {
      const auto slot = static_cast<uint32_t>(__builtin_ctz(free));
      if (free_slots.compare_exchange_weak(free, free & (free - 1), std::memory_order_acquire)) {
        slot_ = slot;
        break;
      }
    }
    return slot_;
  }

 private:
  uint32_t slot_ = kThreadSlots;
};

thread_local SlotGuard t_guard;

}  // namespace

__thread uint32_t t_slot_plus_one = 0;

uint32_t TakeSlot() {
  const uint32_t slot = t_guard.Take();
  t_slot_plus_one = slot + 1;
  return slot;
}

}  // namespace METRICS::thread_slot_internal

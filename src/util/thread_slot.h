#pragma once

#include <cstdint>

namespace METRICS {

/// Slots for numbers that only one thread writes.
constexpr uint32_t kThreadSlots = 32;

/// The slot of this thread, which no other living thread has; `kThreadSlots` and above where there
/// is none. A slot is handed on when its thread ends, and what was written to it is seen by the
/// next one.
///
/// Threads: any. Costs a look at a variable of the thread. A slot of a thread that a fork left
/// behind is not handed on in the child.
uint32_t ThreadSlot();

namespace thread_slot_internal {

// One more than the slot; 0 until the thread asks. Part of the block that the loader makes with the
// thread, so that no call is needed to find it.
extern __thread uint32_t t_slot_plus_one __attribute__((tls_model("initial-exec")));

uint32_t TakeSlot();

}  // namespace thread_slot_internal

inline uint32_t ThreadSlot() {
  const uint32_t slot_plus_one = thread_slot_internal::t_slot_plus_one;
  return slot_plus_one != 0 ? slot_plus_one - 1 : thread_slot_internal::TakeSlot();
}

}  // namespace METRICS

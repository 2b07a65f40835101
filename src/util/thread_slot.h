#pragma once

#include <atomic>
#include <cstdint>

#include "util/number_pool.h"

namespace METRICS {

/// Slots for what only one thread writes.
constexpr uint32_t kThreadSlots = 1024;
constexpr uint32_t kNoThreadSlot = NumberPool<kThreadSlots>::kNone;

namespace thread_slot_internal {

// Part of the block that the loader makes with the thread, so that no call is needed to find it.
extern __thread uint32_t t_slot __attribute__((tls_model("initial-exec")));

uint32_t TakeSlot();

extern NumberPool<kThreadSlots> slots;
extern std::atomic<uint32_t> used_slots;

}  // namespace thread_slot_internal

/// The slot of this thread, which no other living thread has: the lowest one that is free when it
/// first asks. `kNoThreadSlot` when there is none, as for the 1025th thread, which gets one when it
/// asks after another thread has ended. Destructors at the very end of a thread get none either.
/// A slot is handed on when its thread ends, and what was written to it is seen by the next one.
///
/// Threads: any. Costs a look at a variable of the thread. The slot of a thread that exists
/// only in the parent is not handed on in a forked child.
inline uint32_t ThreadSlot() {
  const uint32_t slot = thread_slot_internal::t_slot;
  return slot != kNoThreadSlot ? slot : thread_slot_internal::TakeSlot();
}

/// The slot that this thread has already, or `kNoThreadSlot`.
inline uint32_t TakenThreadSlot() { return thread_slot_internal::t_slot; }

/// For threads of the library: leaves the slots to those of the service. A slot that this thread
/// has already stays its own.
void DoWithoutThreadSlot();

/// Calls `visit(slot)` for each slot that a thread has. In the one order of all sequentially
/// consistent operations it looks at a slot after the call began, and a thread takes it before it
/// uses it.
template <class Visit>
void ForEachTakenSlot(Visit visit) {
  thread_slot_internal::slots.ForEachTaken(visit);
}

/// All slots from this one on have never been taken. What a thread did with its slot comes after
/// the slot was counted here.
inline uint32_t UsedThreadSlots() {
  return thread_slot_internal::used_slots.load(std::memory_order_relaxed);
}

}  // namespace METRICS

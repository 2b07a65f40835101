#pragma once

// `EventCounter::Add`, which every emission goes through, for the sources that count.

#include <atomic>
#include <cstdint>

#include "util/event_counter.h"
#include "util/thread_slot.h"

namespace METRICS {

inline void EventCounter::Add(unsigned long events) {
  Lines* const lines = lines_.load(std::memory_order_acquire);
  const uint32_t slot = TakenThreadSlot();
  if (slot < lines->count) {
    AddOwn(lines->At(slot), events);
  } else {
    AddWithoutLine(events);
  }
}

}  // namespace METRICS

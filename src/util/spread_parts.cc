#include "util/spread_parts.h"

#include <algorithm>

#include "util/thread_slot.h"

namespace METRICS {

uint32_t PartsForThreads() {
  constexpr uint32_t kFewestParts = 4;
  uint32_t slots = kFewestParts;
  ForEachTakenSlot([&slots](uint32_t slot) { slots = std::max(slots, slot + 1); });
  uint32_t parts = kFewestParts;
  while (parts < slots && parts < kMostParts) {
    parts *= 2;
  }
  return parts;
}

}  // namespace METRICS

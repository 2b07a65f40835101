#include "util/sum_parts.h"

#include "util/number_pool.h"

namespace METRICS {
namespace {

NumberPool<kSpreadSums> sums;
static_assert(kNoSpreadSum == NumberPool<kSpreadSums>::kNone);

}  // namespace

// All parts are 0 from the start, and a row takes no memory until threads of its slot add.
sum_parts_internal::Row sum_parts_internal::rows[kThreadSlots];

uint32_t TakeSpreadSum() { return sums.Take(); }

void GiveBackSpreadSum(uint32_t sum) {
  ForEachPart(sum, [](SumPart& part) {
    // A store of what is there already would make the page resident.
    if (part.integers.load(std::memory_order_relaxed) != 0) {
      part.integers.store(0, std::memory_order_relaxed);
    }
    if (part.reals.load(std::memory_order_relaxed) != 0.0) {
      part.reals.store(0.0, std::memory_order_relaxed);
    }
  });
  sums.GiveBack(sum);
}

}  // namespace METRICS

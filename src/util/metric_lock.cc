#include "util/metric_lock.h"

#include <algorithm>

#include "util/metric_clock_util.h"

namespace METRICS {

void BiasedRwLock::SetBias() {
  biased_at_.store(CoarseMillis(), std::memory_order_relaxed);
  biased_.store(true, std::memory_order_release);
}

void BiasedRwLock::TakeBiasBack() {
  constexpr int kFactor = 4;
  biased_.store(false);
  WaitForReaders(this);
  const uint32_t lasted = CoarseMillis() - biased_at_.load(std::memory_order_relaxed);
  reads_asked_ = lasted >= kLongMillis
                     ? kFewestReads
                     : static_cast<uint8_t>(std::min<int>(kFactor * reads_asked_, kMostReads));
}

}  // namespace METRICS

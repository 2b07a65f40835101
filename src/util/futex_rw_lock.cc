#include "util/futex_rw_lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace METRICS {

void FutexRwLock::Sleep(uint32_t others) {
  uint32_t state = state_.load(std::memory_order_relaxed);
  if ((state & others) == 0 ||
      ((state & kAsleep) == 0 &&
       !state_.compare_exchange_strong(state, state | kAsleep, std::memory_order_relaxed))) {
    return;
  }
  const int saved = errno;  // an emission is often one of the first things after a failed call
  ::syscall(SYS_futex, &state_, FUTEX_WAIT_PRIVATE, state | kAsleep, nullptr, nullptr, 0);
  errno = saved;
}

void FutexRwLock::WakeAll() {
  ::syscall(SYS_futex, &state_, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace METRICS

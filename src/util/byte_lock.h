#pragma once

#include <atomic>

#include "util/metric_lock.h"
#include "util/wait.h"

namespace METRICS {

/// A mutex of one byte, for objects of which there are many and that are hardly ever locked, by two
/// threads at a time even less. Who has to wait spins, yields and naps.
///
/// Not recursive. In a forked child it may be held by a thread that does not exist: what it guards
/// must be such that nobody locks it there.
class METRICS_THREAD_ATTR(capability("mutex")) ByteLock {
 public:
  ByteLock() = default;
  ByteLock(const ByteLock&) = delete;
  ByteLock& operator=(const ByteLock&) = delete;

  void Lock() METRICS_THREAD_ATTR(acquire_capability()) METRICS_NO_THREAD_SAFETY {
    WaitUntil([this] { return !held_.exchange(true, std::memory_order_acquire); });
  }
  void Unlock() METRICS_THREAD_ATTR(release_capability()) METRICS_NO_THREAD_SAFETY {
    held_.store(false, std::memory_order_release);
  }

 private:
  std::atomic<bool> held_{false};
};

}  // namespace METRICS

#pragma once

#include <atomic>

#include "util/metric_lock.h"
#include "util/wait.h"

namespace METRICS {

/// A mutex of one byte, for objects of which there are many, that are held for a few instructions
/// and hardly ever by one thread while another one wants them. Unlocking is a plain store. Who has
/// to wait spins, yields and naps.
///
/// Not recursive. In a forked child it may be held by a thread that does not exist.
class METRICS_THREAD_ATTR(capability("mutex")) ByteLock {
 public:
  ByteLock() = default;
  ByteLock(const ByteLock&) = delete;
  ByteLock& operator=(const ByteLock&) = delete;

  void Lock() METRICS_THREAD_ATTR(acquire_capability()) METRICS_NO_THREAD_SAFETY {
    if (!TakeIfFree()) {
      // A look does not take the line from the holder.
      WaitUntil([this] { return !held_.load(std::memory_order_relaxed) && TakeIfFree(); });
    }
    CountHeldLocks(1);
  }
  /// False when another thread holds it.
  bool TryLock() METRICS_THREAD_ATTR(try_acquire_capability(true)) METRICS_NO_THREAD_SAFETY {
    const bool taken = TakeIfFree();
    CountHeldLocks(taken ? 1 : 0);
    return taken;
  }
  void Unlock() METRICS_THREAD_ATTR(release_capability()) METRICS_NO_THREAD_SAFETY {
    CountHeldLocks(-1);
    held_.store(false, std::memory_order_release);
  }

  /// As `Mutex::ReinitAfterFork`.
  bool ReinitAfterFork() METRICS_NO_THREAD_SAFETY { return held_.exchange(false); }

 private:
  bool TakeIfFree() { return !held_.exchange(true, std::memory_order_acquire); }

  std::atomic<bool> held_{false};
};

}  // namespace METRICS

#pragma once

#include <chrono>
#include <condition_variable>

#include "util/metric_lock.h"

namespace METRICS {

/// A condition variable for `Mutex`, so that the compiler checks what is guarded. Both waits
/// release the mutex meanwhile and can return for no reason: call them in a loop. Safe from any
/// number of threads.
class Condition {
 public:
  void NotifyOne() { changed_.notify_one(); }
  void NotifyAll() { changed_.notify_all(); }

  void Wait(Mutex& mutex) METRICS_REQUIRES(mutex) {
    Held held = {mutex};
    changed_.wait(held);
  }
  /// False once it is `until`.
  bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point until)
      METRICS_REQUIRES(mutex) {
    Held held = {mutex};
    return changed_.wait_until(held, until) == std::cv_status::no_timeout;
  }

 private:
  // The mutex as the standard library takes it.
  struct Held {
    Mutex& mutex;
    void lock() METRICS_NO_THREAD_SAFETY { mutex.Lock(); }
    void unlock() METRICS_NO_THREAD_SAFETY { mutex.Unlock(); }
  };

  std::condition_variable_any changed_;
};

}  // namespace METRICS

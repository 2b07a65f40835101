#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

namespace METRICS {

/// Reader-writer lock of one word and a mutex of the writers; who has to wait spins for some
/// microseconds and then sleeps (a futex). For sections that are mostly shorter than a wake.
///
/// The C library's lock changes two words to let a writer in. Whoever meets a writer that lost its
/// processor between them spins, for milliseconds, and on the processor that the writer needs.
///
/// Not recursive. Readers do not wait for a waiting writer, and can starve it if they never pause.
/// The names are those of `std::shared_mutex`.
class FutexRwLock {
 public:
  FutexRwLock() = default;
  FutexRwLock(const FutexRwLock&) = delete;
  FutexRwLock& operator=(const FutexRwLock&) = delete;

  void lock() {
    if (!Spin([this] { return writers_.try_lock(); })) {
      writers_.lock();
    }
    Wait(~kAsleep, [this] { return TryWrite(); });
  }
  void unlock() {
    if ((state_.exchange(0, std::memory_order_release) & kAsleep) != 0) {
      WakeAll();
    }
    writers_.unlock();
  }

  void lock_shared() {
    if (!try_lock_shared()) {
      Wait(kWriter, [this] { return try_lock_shared(); });
    }
  }
  bool try_lock_shared() {
    uint32_t state = state_.load(std::memory_order_relaxed);
    while ((state & kWriter) == 0) {
      if (state_.compare_exchange_weak(state, state + 1, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        return true;
      }
    }
    return false;
  }
  void unlock_shared() {
    if (state_.fetch_sub(1, std::memory_order_release) == kAsleep + 1) {
      // The last one wakes, unless another has come in, who will.
      uint32_t alone = kAsleep;
      if (state_.compare_exchange_strong(alone, 0, std::memory_order_relaxed)) {
        WakeAll();
      }
    }
  }

 private:
  static constexpr uint32_t kWriter = 1U << 31;
  static constexpr uint32_t kAsleep = 1U << 30;  ///< somebody may be; below it: the readers
  static constexpr int kTries = 512;  // a wake takes longer, in a virtual machine some 40 us

  bool TryWrite() {
    uint32_t state = state_.load(std::memory_order_relaxed);
    return (state & ~kAsleep) == 0 &&
           state_.compare_exchange_strong(state, state | kWriter, std::memory_order_acquire,
                                          std::memory_order_relaxed);
  }
  template <class TryOnce>
  static bool Spin(TryOnce try_once) {
    for (int tries = 0; tries < kTries; ++tries) {
      if (try_once()) {
        return true;
      }
      __builtin_ia32_pause();
    }
    return false;
  }
  /// `others`: the bits of those who keep the caller out. A thread that wakes spins again, as the
  /// next writer may be in before it.
  template <class TryOnce>
  void Wait(uint32_t others, TryOnce try_once) {
    while (!Spin(try_once)) {
      Sleep(others);
    }
  }
  /// Until they may have left.
  void Sleep(uint32_t others);
  void WakeAll();

  std::atomic<uint32_t> state_{0};
  std::mutex writers_;  ///< held by the one that writes, or waits for the readers to leave
};

}  // namespace METRICS

#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <shared_mutex>

#include "util/futex_rw_lock.h"
#include "util/held_locks.h"
#include "util/visible_readers.h"

// Clang's thread-safety attributes, so that a guarded member says which lock guards it.
#if defined(__clang__)
#define METRICS_THREAD_ATTR(x) __attribute__((x))
#else
#define METRICS_THREAD_ATTR(x)
#endif

#define METRICS_GUARDED_BY(x) METRICS_THREAD_ATTR(guarded_by(x))
#define METRICS_REQUIRES(...) METRICS_THREAD_ATTR(requires_capability(__VA_ARGS__))
#define METRICS_REQUIRES_SHARED(...) METRICS_THREAD_ATTR(requires_shared_capability(__VA_ARGS__))
#define METRICS_NO_THREAD_SAFETY METRICS_THREAD_ATTR(no_thread_safety_analysis)

namespace METRICS {

/// Reader-writer lock: the platform's own, with the compiler's lock checks.
///
/// Not recursive. A read lock that reports a shortage is retried; a lock that the platform knows
/// to be a deadlock throws `std::system_error`. Readers that never pause can starve a writer.
class METRICS_THREAD_ATTR(capability("rwlock")) RwLock {
 public:
  RwLock() = default;
  RwLock(const RwLock&) = delete;
  RwLock& operator=(const RwLock&) = delete;

  void Lock() METRICS_THREAD_ATTR(acquire_capability()) {
    mutex_.lock();
    CountHeldLocks(1);
  }
  void Unlock() METRICS_THREAD_ATTR(release_capability()) {
    CountHeldLocks(-1);
    mutex_.unlock();
  }
  void LockShared() METRICS_THREAD_ATTR(acquire_shared_capability()) {
    mutex_.lock_shared();
    CountHeldLocks(1);
  }
  void UnlockShared() METRICS_THREAD_ATTR(release_shared_capability()) {
    CountHeldLocks(-1);
    mutex_.unlock_shared();
  }

  /// For a forked child, where the threads that held the lock do not exist: makes it anew. True
  /// when one of them held it for writing, so that what it guards may be half changed.
  bool ReinitAfterFork() METRICS_NO_THREAD_SAFETY {
    const bool was_writing = !mutex_.try_lock_shared();
    new (&mutex_) std::shared_mutex();
    return was_writing;
  }

 private:
  std::shared_mutex mutex_;
};

/// Reader-writer lock whose short readers do not meet: as `RwLock`, for locks that every emission
/// reads and hardly anybody writes (D. Dice, A. Kogan, "BRAVO: Biased Locking for Reader-Writer
/// Locks", USENIX ATC 2019).
///
/// While the lock is biased, a `FastReadGuard` only makes itself visible in its thread's row. A
/// writer locks the lock below it, takes the bias back and waits for those who are visible; from
/// then on readers queue at the lock below as well, until enough of them with no writer in between
/// bias it again. A few are enough at first, and where the last bias lasted; each one that
/// a writer took back at once makes it more, so that frequent writers hardly ever meet one. Long
/// readers use a `ReadGuard`: a waiting writer then holds up nobody else. A thread that reads must
/// not read the same lock again: it would wait for a writer that waits for it.
class METRICS_THREAD_ATTR(capability("rwlock")) BiasedRwLock {
 public:
  BiasedRwLock() = default;
  BiasedRwLock(const BiasedRwLock&) = delete;
  BiasedRwLock& operator=(const BiasedRwLock&) = delete;

  void Lock() METRICS_THREAD_ATTR(acquire_capability()) {
    mutex_.lock();
    if (biased_.load(std::memory_order_relaxed)) {
      TakeBiasBack();
    }
    if (reads_to_bias_.load(std::memory_order_relaxed) != reads_asked_) {
      reads_to_bias_.store(reads_asked_, std::memory_order_relaxed);
    }
    CountHeldLocks(1);
  }
  void Unlock() METRICS_THREAD_ATTR(release_capability()) {
    CountHeldLocks(-1);
    mutex_.unlock();
  }
  void LockShared() METRICS_THREAD_ATTR(acquire_shared_capability()) {
    mutex_.lock_shared();
    CountHeldLocks(1);
  }
  void UnlockShared() METRICS_THREAD_ATTR(release_shared_capability()) {
    CountHeldLocks(-1);
    mutex_.unlock_shared();
  }

  /// As `RwLock::ReinitAfterFork`. Its visible readers are gone by themselves.
  bool ReinitAfterFork() METRICS_NO_THREAD_SAFETY {
    const bool was_writing = !mutex_.try_lock_shared();
    new (this) BiasedRwLock();
    return was_writing;
  }

 private:
  friend class FastReadGuard;
  // A bias costs a writer some tens of nanoseconds, and a microsecond or more where a hundred
  // threads read. `kMostReads` bring them in several times; to a bias of `kLongMillis` they are
  // nothing.
  static constexpr uint8_t kFewestReads = 4;
  static constexpr uint8_t kMostReads = 64;
  static constexpr uint32_t kLongMillis = 10;

  /// Makes the caller visible; null when it has to take the lock below.
  ReaderSlot* TryEnter() const {
    if (!biased_.load(std::memory_order_relaxed)) {
      return nullptr;
    }
    ReaderSlot* const slot = EnterAsReader(this);
    // After the exchange in the one order of both: whoever takes the bias back sees this reader,
    // or is seen by it.
    if (slot != nullptr && !biased_.load()) {
      slot->store(nullptr, std::memory_order_release);
      return nullptr;
    }
    CountHeldLocks(slot != nullptr ? 1 : 0);
    return slot;
  }

  /// To be called with the lock below held for reading.
  void CountRead() {
    const uint8_t left = reads_to_bias_.load(std::memory_order_relaxed);
    if (left > 0) {
      reads_to_bias_.store(static_cast<uint8_t>(left - 1), std::memory_order_relaxed);
    } else if (reader_rows_usable.load(std::memory_order_relaxed)) {
      SetBias();
    }
  }
  void SetBias();
  void TakeBiasBack();

  // Changed with the lock below held: cleared by a writer, set by a reader.
  std::atomic<bool> biased_{false};
  std::atomic<uint8_t> reads_to_bias_{kFewestReads};  ///< inexact among readers
  uint8_t reads_asked_ = kFewestReads;                ///< after each writer; the writers'
  std::atomic<uint32_t> biased_at_{0};                ///< in milliseconds of `CoarseMillis`
  FutexRwLock mutex_;
};

/// Plain mutex with the compiler's lock checks; as `RwLock` otherwise.
class METRICS_THREAD_ATTR(capability("mutex")) Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() METRICS_THREAD_ATTR(acquire_capability()) {
    mutex_.lock();
    CountHeldLocks(1);
  }
  void Unlock() METRICS_THREAD_ATTR(release_capability()) {
    CountHeldLocks(-1);
    mutex_.unlock();
  }

  /// As `RwLock::ReinitAfterFork`, for a thread that held the mutex.
  bool ReinitAfterFork() METRICS_NO_THREAD_SAFETY {
    const bool was_held = !mutex_.try_lock();
    new (&mutex_) std::mutex();
    return was_held;
  }

 private:
  std::mutex mutex_;
};

/// What a guard of a lock of type `L` is around its hold of it: nothing, mostly.
template <class L>
class AroundLock {};

/// Holds `lock` for writing (a `RwLock`) or at all (a `Mutex`) for the life of the guard.
template <class L>
class METRICS_THREAD_ATTR(scoped_lockable) WriteGuard : private AroundLock<L> {
 public:
  explicit WriteGuard(L& lock) METRICS_THREAD_ATTR(acquire_capability(lock)) : lock_(lock) {
    lock_.Lock();
  }
  ~WriteGuard() METRICS_THREAD_ATTR(release_capability()) { lock_.Unlock(); }
  WriteGuard(const WriteGuard&) = delete;
  WriteGuard& operator=(const WriteGuard&) = delete;

 private:
  L& lock_;
};

/// Holds `lock` for reading for the life of the guard.
template <class L>
class METRICS_THREAD_ATTR(scoped_lockable) ReadGuard : private AroundLock<L> {
 public:
  explicit ReadGuard(L& lock) METRICS_THREAD_ATTR(acquire_shared_capability(lock)) : lock_(lock) {
    lock_.LockShared();
  }
  ~ReadGuard() METRICS_THREAD_ATTR(release_capability()) { lock_.UnlockShared(); }
  ReadGuard(const ReadGuard&) = delete;
  ReadGuard& operator=(const ReadGuard&) = delete;

 private:
  L& lock_;
};

/// Holds `lock` for reading for the short life of the guard; see `BiasedRwLock`.
class METRICS_THREAD_ATTR(scoped_lockable) FastReadGuard {
 public:
  explicit FastReadGuard(BiasedRwLock& lock)
      METRICS_THREAD_ATTR(acquire_shared_capability(lock)) METRICS_NO_THREAD_SAFETY
      : lock_(lock),
        slot_(lock.TryEnter()) {
    if (slot_ == nullptr) {
      lock_.LockShared();
      lock_.CountRead();
    }
  }
  ~FastReadGuard() METRICS_THREAD_ATTR(release_capability()) METRICS_NO_THREAD_SAFETY {
    if (slot_ != nullptr) {
      CountHeldLocks(-1);
      slot_->store(nullptr, std::memory_order_release);
    } else {
      lock_.UnlockShared();
    }
  }
  FastReadGuard(const FastReadGuard&) = delete;
  FastReadGuard& operator=(const FastReadGuard&) = delete;

 private:
  BiasedRwLock& lock_;
  ReaderSlot* const slot_;
};

}  // namespace METRICS

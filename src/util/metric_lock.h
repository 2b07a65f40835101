#pragma once

#include <mutex>
#include <new>
#include <shared_mutex>

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

  void Lock() METRICS_THREAD_ATTR(acquire_capability()) { mutex_.lock(); }
  void Unlock() METRICS_THREAD_ATTR(release_capability()) { mutex_.unlock(); }
  void LockShared() METRICS_THREAD_ATTR(acquire_shared_capability()) { mutex_.lock_shared(); }
  void UnlockShared() METRICS_THREAD_ATTR(release_shared_capability()) { mutex_.unlock_shared(); }

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

/// Plain mutex with the compiler's lock checks; as `RwLock` otherwise.
class METRICS_THREAD_ATTR(capability("mutex")) Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() METRICS_THREAD_ATTR(acquire_capability()) { mutex_.lock(); }
  void Unlock() METRICS_THREAD_ATTR(release_capability()) { mutex_.unlock(); }

  /// As `RwLock::ReinitAfterFork`, for a thread that held the mutex.
  bool ReinitAfterFork() METRICS_NO_THREAD_SAFETY {
    const bool was_held = !mutex_.try_lock();
    new (&mutex_) std::mutex();
    return was_held;
  }

 private:
  std::mutex mutex_;
};

/// Holds `lock` for writing (a `RwLock`) or at all (a `Mutex`) for the life of the guard.
template <class L>
class METRICS_THREAD_ATTR(scoped_lockable) WriteGuard {
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
class METRICS_THREAD_ATTR(scoped_lockable) ReadGuard {
 public:
  explicit ReadGuard(RwLock& lock) METRICS_THREAD_ATTR(acquire_shared_capability(lock))
      : lock_(lock) {
    lock_.LockShared();
  }
  ~ReadGuard() METRICS_THREAD_ATTR(release_capability()) { lock_.UnlockShared(); }
  ReadGuard(const ReadGuard&) = delete;
  ReadGuard& operator=(const ReadGuard&) = delete;

 private:
  RwLock& lock_;
};

}  // namespace METRICS

#pragma once

#include <memory>
#include <new>

namespace METRICS {

/// Tearing down in a forked child.
///
/// A child of `fork` has one thread and a copy of memory as the parent's threads left it at that
/// instant: locks held by threads that do not exist, tables in the middle of a change, handles of
/// threads that cannot be joined. While a `ForkTeardown` lives, `InForkTeardown()` is true on its
/// thread, and destructors make such locks anew, leave such tables unwalked and let such handles
/// go. What is left so is leaked: nobody can say what state it is in.
class ForkTeardown {
 public:
  ForkTeardown() noexcept;
  ~ForkTeardown();
  ForkTeardown(const ForkTeardown&) = delete;
  ForkTeardown& operator=(const ForkTeardown&) = delete;
};

bool InForkTeardown() noexcept;

/// Replaces `object` by a new one without touching the old one's content.
template <class T>
void Abandon(T& object) {
  new (std::addressof(object)) T();
}

/// In a forked child: makes `lock` anew, and abandons what it guards if a thread of the parent was
/// changing it. True if it was.
template <class Lock, class... Guarded>
bool RepairGuarded(Lock& lock, Guarded&... guarded) {
  const bool half_changed = lock.ReinitAfterFork();
  if (half_changed) {
    (Abandon(guarded), ...);
  }
  return half_changed;
}

/// The same for a destructor, which may run outside of the teardown of a forked child, too: false
/// there, and nothing is done.
template <class Lock, class... Guarded>
bool RepairInForkTeardown(Lock& lock, Guarded&... guarded) {
  return InForkTeardown() && RepairGuarded(lock, guarded...);
}

}  // namespace METRICS

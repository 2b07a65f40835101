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

}  // namespace METRICS

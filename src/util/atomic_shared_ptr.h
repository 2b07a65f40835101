#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "util/wait.h"

namespace METRICS {

/// A shared pointer that one thread may set while others read it.
///
/// Guarded by a flag of its own, held for a copy at most: a lock that the whole process shares
/// could be left taken in a forked child. Not for the path of emissions.
template <class T>
class AtomicSharedPtr {
 public:
  std::shared_ptr<T> Load() const {
    const Guard guard(busy_);
    return pointer_;
  }

  void Store(std::shared_ptr<T> pointer) {
    const Guard guard(busy_);
    pointer_.swap(pointer);  // what it held dies after the guard, with the argument
  }

 private:
  class Guard {
   public:
    explicit Guard(std::atomic_flag& busy) : busy_(busy) {
      WaitUntil([this] { return !busy_.test_and_set(std::memory_order_acquire); });
    }
    ~Guard() { busy_.clear(std::memory_order_release); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    std::atomic_flag& busy_;
  };

  mutable std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
  std::shared_ptr<T> pointer_;
};

}  // namespace METRICS

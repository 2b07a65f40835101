#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <utility>

#include "util/condition.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// Items on their way from threads that must not wait to one that may. Bounded by bytes: where a new
// item finds no room, the oldest make it, and their number does not matter.
//
// Threads: all operations from any thread. Owns its items. Push waits for nothing but the lock,
// which nobody holds for longer than it takes to move a few items.
template <typename Item>
class BoundedQueue {
 public:
  enum class Result { kItem, kTimeout, kClosed };
  using Slot = std::pair<Item, size_t>;  // with its bytes

  explicit BoundedQueue(size_t max_bytes) : max_bytes_(max_bytes) {}

  // Appends an item of that many bytes. Returns the items that had to go for it, which is the item
  // itself if it is larger than the whole queue. Without memory for it, throws and changes nothing.
  std::list<Slot> Push(Item item, size_t bytes) {
    std::list<Slot> dropped;
    std::list<Slot> node;
    node.emplace_back(std::move(item), bytes + kOverhead);
    {
      const METRICS::WriteGuard lock(mutex_);
      slots_.splice(slots_.end(), node);
      bytes_ += bytes + kOverhead;
      while (bytes_ > max_bytes_) TakeOldest(&dropped);
    }
    ready_.NotifyOne();
    return dropped;
  }

  // Waits for an item. A closed queue still hands out what is in it.
  Result Pop(Item* item, std::chrono::milliseconds timeout) {
    std::list<Slot> taken;
    const auto until = std::chrono::steady_clock::now() + timeout;
    const METRICS::WriteGuard lock(mutex_);
    while (!closed_ && slots_.empty() && ready_.WaitUntil(mutex_, until)) {
    }
    if (slots_.empty()) return closed_ ? Result::kClosed : Result::kTimeout;
    TakeOldest(&taken);
    *item = std::move(taken.front().first);
    return Result::kItem;
  }

  void Close() {
    {
      const METRICS::WriteGuard lock(mutex_);
      closed_ = true;
    }
    ready_.NotifyAll();
  }

  size_t size() const {
    const METRICS::WriteGuard lock(mutex_);
    return slots_.size();
  }

 private:
  // So that empty items fill the queue as well.
  static constexpr size_t kOverhead = sizeof(Slot) + 32;

  void TakeOldest(std::list<Slot>* to) METRICS_REQUIRES(mutex_) {
    bytes_ -= slots_.front().second;
    to->splice(to->end(), slots_, slots_.begin());
  }

  const size_t max_bytes_;
  mutable METRICS::Mutex mutex_;
  METRICS::Condition ready_;
  std::list<Slot> slots_ METRICS_GUARDED_BY(mutex_);
  size_t bytes_ METRICS_GUARDED_BY(mutex_) = 0;
  bool closed_ METRICS_GUARDED_BY(mutex_) = false;
};

}  // namespace tidegate::agent

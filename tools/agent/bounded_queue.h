#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

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

  explicit BoundedQueue(size_t max_bytes) : max_bytes_(max_bytes) {}

  // Appends an item of that many bytes. Returns the items that had to go for it, which is the item
  // itself if it is larger than the whole queue.
  std::vector<Item> Push(Item item, size_t bytes) {
    std::vector<Item> dropped;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      items_.push_back({std::move(item), bytes + kOverhead});
      bytes_ += bytes + kOverhead;
      while (bytes_ > max_bytes_) dropped.push_back(TakeOldest());
    }
    ready_.notify_one();
    return dropped;
  }

  // Waits for an item. A closed queue still hands out what is in it.
  Result Pop(Item* item, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait_for(lock, timeout, [this] { return closed_ || !items_.empty(); });
    if (items_.empty()) return closed_ ? Result::kClosed : Result::kTimeout;
    *item = TakeOldest();
    return Result::kItem;
  }

  void Close() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      closed_ = true;
    }
    ready_.notify_all();
  }

  size_t size() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return items_.size();
  }
  size_t bytes() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return bytes_;
  }

 private:
  struct Slot {
    Item item;
    size_t bytes;
  };

  // So that empty items fill the queue as well.
  static constexpr size_t kOverhead = sizeof(Slot) + 16;

  Item TakeOldest() {
    Item item = std::move(items_.front().item);
    bytes_ -= items_.front().bytes;
    items_.pop_front();
    return item;
  }

  const size_t max_bytes_;
  mutable std::mutex mutex_;  // of all below
  std::condition_variable ready_;
  std::deque<Slot> items_;
  size_t bytes_ = 0;
  bool closed_ = false;
};

}  // namespace tidegate::agent

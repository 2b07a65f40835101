#pragma once

#include <atomic>
#include <memory>

#include "util/thread_slot.h"

namespace METRICS {

/// A counter of events that many threads count and one reads: once it is spread, a thread that has
/// a slot adds to a cache line of its own, without a locked instruction. It reads like one atomic
/// number.
///
/// Threads: all operations from any thread. What is subtracted is taken from the common part, so
/// sums wrap around below zero between the parts, and are right together. A reading counts every
/// event that happened before it once, and those that happen meanwhile at most once.
class EventCounter {
 public:
  EventCounter() = default;
  ~EventCounter() { delete[] lines_.load(std::memory_order_relaxed); }
  EventCounter(const EventCounter&) = delete;
  EventCounter& operator=(const EventCounter&) = delete;

  /// Makes the lines: 64 bytes for each slot. What was counted stays.
  void Spread() {
    std::unique_ptr<Line[]> made(new Line[kThreadSlots]);
    Line* none = nullptr;
    if (lines_.compare_exchange_strong(none, made.get(), std::memory_order_acq_rel)) {
      made.release();
    }
  }

  void Add(unsigned long events) {
    Line* const lines = lines_.load(std::memory_order_acquire);
    const uint32_t slot = ThreadSlot();
    if (lines != nullptr && slot < kThreadSlots) {
      // No other thread writes to this line.
      std::atomic<unsigned long>& own = lines[slot].events;
      own.store(own.load(std::memory_order_relaxed) + events, std::memory_order_relaxed);
      return;
    }
    common_.fetch_add(events, std::memory_order_relaxed);
  }

  unsigned long load() const {
    unsigned long sum = common_.load();
    const Line* const lines = lines_.load(std::memory_order_acquire);
    for (uint32_t slot = 0; lines != nullptr && slot < kThreadSlots; ++slot) {
      sum += lines[slot].events.load(std::memory_order_relaxed);
    }
    return sum;
  }
  operator unsigned long() const { return load(); }
  void fetch_sub(unsigned long events) { common_.fetch_sub(events); }

 private:
  struct alignas(64) Line {
    std::atomic<unsigned long> events{0};
  };

  std::atomic<unsigned long> common_{0};
  std::atomic<Line*> lines_{nullptr};
};

/// As for a plain atomic.
inline unsigned long GetStatValue(EventCounter& counter) {
  const unsigned long value = counter.load();
  counter.fetch_sub(value);
  return value;
}

}  // namespace METRICS

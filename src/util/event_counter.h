#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>

#include "util/thread_slot.h"

namespace METRICS {

/// A counter of events that many threads count and one reads. It reads like one atomic number, but
/// a thread that has a slot adds to a place that no other thread writes, without a locked
/// instruction: the first such thread in the counter itself, and once there is a second one, each
/// to a cache line of its own, 64 bytes for each slot.
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

  /// Makes the lines. What was counted stays. Without memory, too.
  void Spread() {
    if (lines_.load(std::memory_order_acquire) != nullptr) {
      return;
    }
    std::unique_ptr<Line[]> made(new (std::nothrow) Line[kThreadSlots]);
    Line* none = nullptr;
    if (lines_.compare_exchange_strong(none, made.get(), std::memory_order_acq_rel)) {
      made.release();
    }
  }

  void Add(unsigned long events) {
    const uint32_t slot = ThreadSlot();
    Line* const lines = lines_.load(std::memory_order_acquire);
    if (slot >= kThreadSlots) {
      common_.fetch_add(events, std::memory_order_relaxed);
    } else if (lines != nullptr) {
      AddOwn(lines[slot].events, events);
    } else if (owner_.load(std::memory_order_relaxed) == slot + 1) {
      AddOwn(first_, events);
    } else {
      AddAsNewThread(slot, events);
    }
  }

  unsigned long load() const {
    unsigned long sum = common_.load() + first_.load(std::memory_order_relaxed);
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

  /// REQUIRES: only this thread writes to `place`.
  static void AddOwn(std::atomic<unsigned long>& place, unsigned long events) {
    place.store(place.load(std::memory_order_relaxed) + events, std::memory_order_relaxed);
  }

  __attribute__((noinline)) void AddAsNewThread(uint32_t slot, unsigned long events) {
    common_.fetch_add(events, std::memory_order_relaxed);
    uint32_t nobody = 0;
    if (owner_.compare_exchange_strong(nobody, slot + 1)) {
      return;
    }
    Spread();
  }

  std::atomic<Line*> lines_{nullptr};
  std::atomic<uint32_t> owner_{0};        ///< slot of the first thread, plus one
  std::atomic<unsigned long> first_{0};   ///< counted by that thread while it was alone
  std::atomic<unsigned long> common_{0};  ///< counted by threads without a slot, and what was taken
};

/// As for a plain atomic.
inline unsigned long GetStatValue(EventCounter& counter) {
  const unsigned long value = counter.load();
  counter.fetch_sub(value);
  return value;
}

}  // namespace METRICS

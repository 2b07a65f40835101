#pragma once

#include <atomic>
#include <cstdint>

namespace METRICS {

/// A counter of events that many threads count and one reads. It reads like one atomic number, but
/// a thread that has a line adds to it without a locked instruction, and no other thread writes to
/// that line. There is a line for each of the first `kFirstLines` slots, see `ThreadSlot`, and once
/// the counter is spread, for as many as count on it. All others share a number.
///
/// Threads: all operations from any thread. What is subtracted is taken from the common part, so
/// sums wrap around below zero between the parts, and are right together. A reading counts every
/// event that happened before it once, and those that happen meanwhile at most once. Owns its
/// lines, 64 bytes each and as many again for each list of them; without memory there are fewer.
class EventCounter {
 public:
  /// What a counter is spread to at least.
  static constexpr uint32_t kSpreadLines = 32;
  static constexpr uint32_t kFirstLines = 4;  ///< what one that counts from the start is made with

  /// With lines for the first `lines` slots, and without any for 0.
  explicit EventCounter(uint32_t lines = kFirstLines);
  ~EventCounter();
  EventCounter(const EventCounter&) = delete;
  EventCounter& operator=(const EventCounter&) = delete;

  /// Counts. Never allocates. Inline in `util/event_counter_add.h`.
  void Add(unsigned long events);

  /// Makes lines for the threads that share a number so far, if there are any. For a thread that
  /// may allocate. What was counted stays.
  void SpreadAsAsked() {
    const uint32_t asked = lines_asked_.load(std::memory_order_relaxed);
    if (asked > lines_.load(std::memory_order_acquire)->count) {
      Spread(asked);
    }
  }
  /// Makes lines for the slots below `count`, and for all up to the next power of two.
  void Spread(uint32_t count);

  /// What was counted and not taken away.
  unsigned long load() const {
    unsigned long sum = common_.load();
    for (Lines* lines = lines_.load(std::memory_order_acquire); lines != nullptr;
         lines = lines->older) {
      for (uint32_t slot = 0; slot < lines->count; ++slot) {
        sum += lines->At(slot).load(std::memory_order_relaxed);
      }
    }
    return sum;
  }
  operator unsigned long() const { return load(); }  ///< the same
  /// Takes away what was read.
  void fetch_sub(unsigned long events) { common_.fetch_sub(events); }

 private:
  struct alignas(64) Line {
    std::atomic<unsigned long> events{0};
  };
  /// The head of a list of lines, which come right after it.
  struct alignas(64) Lines {
    std::atomic<unsigned long>& At(uint32_t slot) {
      return (reinterpret_cast<Line*>(this + 1) + slot)->events;
    }

    uint32_t count;
    Lines* older;  ///< a shorter list, which counts too; threads may still be adding to it
  };

  static_assert(sizeof(Line) == 64 && sizeof(Lines) == 64, "no two threads share a line");
  static_assert(std::atomic<unsigned long>::is_always_lock_free);

  /// REQUIRES: only this thread writes to `own`.
  static void AddOwn(std::atomic<unsigned long>& own, unsigned long events) {
    own.store(own.load(std::memory_order_relaxed) + events, std::memory_order_relaxed);
  }
  void AddWithoutLine(unsigned long events);
  /// Null without memory.
  static Lines* MakeLines(uint32_t count, Lines* older);

  static Lines none_;
  std::atomic<Lines*> lines_;             ///< the longest list; never null
  std::atomic<unsigned long> common_{0};  ///< counted without a line, and what was taken
  std::atomic<uint32_t> lines_asked_{0};  ///< as many would do for all who counted without one
};

/// As for a plain atomic.
inline unsigned long GetStatValue(EventCounter& counter) {
  const unsigned long value = counter.load();
  counter.fetch_sub(value);
  return value;
}

}  // namespace METRICS

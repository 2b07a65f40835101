#pragma once

#include <atomic>
#include <cstdint>

#include "util/sum_parts.h"
#include "util/thread_slot.h"

namespace METRICS {

/// Flushes that a cell goes on reporting after the last emission, its own interval included.
constexpr uint8_t kQuietAfterFlushes = 3;

/// What an adding cell has been given: a sum of integers, a sum of doubles, and the number of
/// flushes since the last emission.
///
/// The sum of integers has two words in the cell. The first slot that adds owns the one and adds by
/// load and store; all others add to the other one by compare-exchange. Threads that meet here
/// often in one interval spread the sums (`util/sum_parts.h`): from then on each slot adds integers
/// to a part of its own, and threads without a slot go on as before. Each word only changes by
/// what is added to it, so a reading finds every emission that happened before it once, and those
/// that happen meanwhile at most once. Integers wrap around at 64 bits; the words do so each for
/// itself, and are right together. Doubles are added by compare-exchange, to a word in the cell or
/// to the slot's part.
///
/// Threads: `Emit` from any thread, the readings from one thread at a time. Never allocates; when
/// no spread sum is free, all stays as it is. The destructor must come after the last emission.
class AddingSums {
 public:
  AddingSums() = default;
  AddingSums(const AddingSums&) = delete;
  AddingSums& operator=(const AddingSums&) = delete;

  void Emit(long value) {
    if (state_.load(std::memory_order_relaxed) == TakenThreadSlot()) {
      AddAlone(own_sum_, value);
    } else {
      AddElsewhere(value);
    }
    Wake();
  }
  void Emit(double value) {
    AddReal(value);
    Wake();
  }

  /// Gives each slot a part of its own, unless all spread sums are taken. Any thread.
  void Spread();
  bool IsSpread() const { return state_.load(std::memory_order_relaxed) >= kFirstSpread; }

 protected:
  ~AddingSums();

  /// Whether no emission has been seen for so long that the cell is silent. What was added without
  /// `idle_flushes_` being written can become visible after this: the sums tell then.
  bool Quiet() const { return idle_flushes_.load() >= kQuietAfterFlushes; }
  /// Counts a flush that reports. `was_quiet` is the answer of `Quiet`.
  void CountFlush(bool was_quiet);

  /// The sum of all integers that were not taken.
  long Integers() const;
  /// Takes what it finds. It is subtracted, so what is added meanwhile stays.
  long TakeIntegers();
  /// The sum of all doubles that were not taken.
  double Reals() const;
  /// Takes what it finds. It is exchanged for 0.0, so no rounding leaves anything.
  double TakeReals();

 private:
  // Values of `state_`; below them is the slot of the owner.
  static constexpr uint32_t kNoOwner = kThreadSlots;
  static constexpr uint32_t kFirstSpread = kThreadSlots + 1;  ///< spread, with the first number
  static_assert(kNoThreadSlot >= kFirstSpread + kSpreadSums, "nobody's slot");

  /// Wraps around.
  static long Plus(long a, long b) {
    return static_cast<long>(static_cast<unsigned long>(a) + static_cast<unsigned long>(b));
  }
  /// REQUIRES: only this thread adds to `sum`.
  static void AddAlone(std::atomic<long>& sum, long value) {
    sum.store(Plus(sum.load(std::memory_order_relaxed), value), std::memory_order_relaxed);
  }
  void AddElsewhere(long value);
  void AddShared(long value);
  void AddReal(double value);
  void CountCollision();
  /// Calls `visit(part)` for each part, if the sums are spread.
  template <class Visit>
  void ForEachOwnPart(Visit visit) const;

  /// A store of what is there already would take the line from other threads.
  void Wake() {
    if (idle_flushes_.load(std::memory_order_relaxed) != 0) {
      idle_flushes_.store(0, std::memory_order_release);
    }
  }

  std::atomic<long> own_sum_{0};   ///< written by threads of the owner's slot alone
  std::atomic<long> long_sum_{0};  ///< of all others, and less what was taken
  std::atomic<double> double_sum_{0.0};
  /// The slot of the owner, or that there is none yet, or that the sums are spread, which stays so.
  std::atomic<uint32_t> state_{kNoOwner};
  std::atomic<uint8_t> collisions_{0};  ///< since the last report; inexact
  /// Flushes since the last emission; starts quiet.
  std::atomic<uint8_t> idle_flushes_{kQuietAfterFlushes};
};

}  // namespace METRICS

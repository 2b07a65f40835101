#pragma once

#include <atomic>
#include <cstdint>

namespace METRICS {

/// Numbers below `kCount`, each with one owner at a time.
///
/// Threads: any. Who takes a number sees what its owner before has done.
template <uint32_t kCount>
class NumberPool {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  /// The lowest number that is free, or `kNone`.
  uint32_t Take() {
    for (uint32_t word = 0; word < kWords; ++word) {
      uint64_t taken = taken_[word].load(std::memory_order_relaxed);
      while (~taken != 0) {
        const auto bit = static_cast<uint32_t>(__builtin_ctzll(~taken));
        if (taken_[word].compare_exchange_weak(taken, taken | uint64_t{1} << bit)) {
          return word * kWordBits + bit;
        }
      }
    }
    return kNone;
  }

  /// REQUIRES: `number` is the caller's.
  void GiveBack(uint32_t number) {
    taken_[number / kWordBits].fetch_and(~(uint64_t{1} << number % kWordBits),
                                         std::memory_order_release);
  }

  /// Calls `visit(number)` for each number that is taken. In the one order of all sequentially
  /// consistent operations, taking one is before or after the look at it.
  template <class Visit>
  void ForEachTaken(Visit visit) const {
    uint32_t first = 0;
    for (const std::atomic<uint64_t>& word : taken_) {
      for (uint64_t taken = word.load(); taken != 0; taken &= taken - 1) {
        visit(first + static_cast<uint32_t>(__builtin_ctzll(taken)));
      }
      first += kWordBits;
    }
  }

 private:
  static constexpr uint32_t kWordBits = 64;
  static constexpr uint32_t kWords = kCount / kWordBits;
  static_assert(kCount % kWordBits == 0);

  std::atomic<uint64_t> taken_[kWords] = {};  ///< a bit for each number
};

}  // namespace METRICS

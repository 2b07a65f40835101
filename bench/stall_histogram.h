#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tidegate::bench {

// Counts durations in steps of at most a sixteenth of themselves.
class StallHistogram {
 public:
  void Add(uint64_t nanos) {
    ++counts_[IndexOf(nanos)];
    ++count_;
    longest_ = nanos > longest_ ? nanos : longest_;
  }

  uint64_t count() const { return count_; }
  uint64_t longest() const { return longest_; }

  // At least `share` of all are at most this long.
  uint64_t Percentile(double share) const {
    auto left = static_cast<uint64_t>(share * static_cast<double>(count_));
    for (size_t i = 0; i < counts_.size(); ++i) {
      if (counts_[i] > left) {
        return EndOf(i);
      }
      left -= counts_[i];
    }
    return longest_;
  }

  // How many are at least this long, to a step.
  uint64_t AtLeast(uint64_t nanos) const {
    uint64_t found = 0;
    for (size_t i = IndexOf(nanos); i < counts_.size(); ++i) {
      found += counts_[i];
    }
    return found;
  }

 private:
  static constexpr unsigned kStepBits = 4;
  static constexpr size_t kSteps = size_t{1} << kStepBits;

  static size_t IndexOf(uint64_t nanos) {
    if (nanos < kSteps) {
      return nanos;
    }
    const unsigned shift = 63 - static_cast<unsigned>(__builtin_clzll(nanos)) - kStepBits;
    return shift * kSteps + (nanos >> shift);
  }
  static uint64_t EndOf(size_t index) {
    if (index < kSteps) {
      return index;
    }
    const size_t shift = index / kSteps - 1;
    return ((index % kSteps + kSteps + 1) << shift) - 1;
  }

  std::array<uint64_t, (64 - kStepBits + 1) * kSteps> counts_{};
  uint64_t count_ = 0;
  uint64_t longest_ = 0;
};

}  // namespace tidegate::bench

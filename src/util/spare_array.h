#pragma once

#include <cstddef>
#include <memory>
#include <utility>

namespace METRICS {

/// Memory for a change of a locked table, made while the table is not locked: a change that finds
/// too little of it says how much it wants, changes nothing, and is tried again after `Make`.
template <class T>
class SpareArray {
 public:
  /// Whether `count` elements are there; `Make` makes them else.
  bool Has(size_t count) {
    wanted_ = count;
    return count_ == count;
  }
  void Make() {
    if (count_ != wanted_) {
      elements_ = std::make_unique<T[]>(wanted_);
      count_ = wanted_;
    }
  }
  /// Gives the elements, and keeps `replaced` until it dies itself: without the lock.
  std::unique_ptr<T[]> Exchange(std::unique_ptr<T[]> replaced) {
    wanted_ = count_ = 0;
    elements_.swap(replaced);
    return replaced;
  }

 private:
  size_t wanted_ = 0;
  size_t count_ = 0;
  std::unique_ptr<T[]> elements_;
};

}  // namespace METRICS

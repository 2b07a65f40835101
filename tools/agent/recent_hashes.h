#pragma once

#include <cstddef>
#include <unordered_set>
#include <utility>

namespace tidegate::agent {

// Tells what comes for the first time from what comes again and again, in bounded memory.
//
// Not thread-safe. Remembers kMaxHashes for each of two periods, some 10 MB together.
class RecentHashes {
 public:
  static constexpr size_t kMaxHashes = 100000;

  // Whether it is new: false if it came in this period or the one before, or if this period has
  // seen kMaxHashes others.
  bool Add(size_t hash) {
    if (now_.size() >= kMaxHashes) return false;
    return now_.insert(hash).second && before_.count(hash) == 0;
  }

  // Begins a period.
  void Age() { before_ = std::exchange(now_, {}); }

 private:
  std::unordered_set<size_t> now_;
  std::unordered_set<size_t> before_;
};

}  // namespace tidegate::agent

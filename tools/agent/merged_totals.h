#pragma once

#include <cstdint>

namespace tidegate::agent {

// Seconds; longer than an interval. A process whose points are older than its last ones by more
// than that has had its clock set back.
inline constexpr int64_t kLongestInterval = 300;

inline bool IsSetBack(int64_t newest, int64_t timestamp) {
  return newest > timestamp &&
         static_cast<uint64_t>(newest) - static_cast<uint64_t>(timestamp) > kLongestInterval;
}

// The count of one process in one of its totals, as increases that can be added to those of others.
// Its points may come in another order than that of their times, as an earlier point comes after
// that of the interval itself. A total that falls has started again from 0.
//
// Not thread-safe.
class ProcessTotal {
 public:
  // An increase, in the interval that ends at `timestamp`.
  struct Increase {
    int64_t timestamp;
    double amount;  // not negative
  };
  // Those that a point adds: up to its own time, and from there to a later one that came before it.
  struct Increases {
    Increase own;
    Increase later;
  };

  // A point whose total is finite. The first one adds `first`. An earlier point can come after it
  // and tell more; there is none if the process has run for longer than the agent.
  Increases Add(int64_t timestamp, double total, double first);

  // Of the newest point; INT64_MIN without any.
  int64_t newest() const { return newest_; }

 private:
  int64_t before_ = INT64_MIN;  // the newest point but one, if there is one
  int64_t newest_ = INT64_MIN;
  double total_before_ = 0;
  double total_ = 0;
  double added_ = 0;  // by the newest point
};

}  // namespace tidegate::agent

#pragma once

#include <chrono>
#include <ctime>

namespace tidegate::bench {

// The CPU time of the calling thread, as a clock: for work that waits for nothing, it says what a
// steady clock would on a machine where nothing else runs.
struct ThreadClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<ThreadClock>;
  static constexpr bool is_steady = true;

  static time_point now() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time_point(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
  }
};

}  // namespace tidegate::bench

#pragma once

#include <cstdint>

namespace METRICS {

/// Keeps `pthread_cancel` from ending this thread for the life of the guard; what comes meanwhile
/// acts at the next cancellation point after it.
///
/// For calls that are cancellation points where the library cannot be left in the middle: with a
/// lock that no guard holds yet, or below a function that may not throw.
class NoCancellation {
 public:
  NoCancellation();
  ~NoCancellation();
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;

 private:
  int before_ = 0;
};

/// One turn of a wait, counted from 0: spins at first, then yields, then naps. Never cancelled.
void PauseInWait(uint32_t turn);

/// Waits until `done()`, for what another thread does within nanoseconds unless it was put off the
/// processor. Then it may need this one, and a thread of real-time priority only gives it up by
/// sleeping.
template <class Done>
void WaitUntil(Done done) {
  for (uint32_t turn = 0; !done(); ++turn) {
    PauseInWait(turn);
  }
}

}  // namespace METRICS

#include "util/wait.h"

#include <pthread.h>
#include <sched.h>

#include <ctime>

namespace METRICS {

NoCancellation::NoCancellation() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }

NoCancellation::~NoCancellation() { ::pthread_setcancelstate(before_, nullptr); }

void PauseInWait(uint32_t turn) {
  constexpr uint32_t kSpins = 100;
  constexpr uint32_t kYields = 100;
  constexpr timespec kNap{0, 50000};
  if (turn < kSpins) {
    __builtin_ia32_pause();
  } else if (turn < kSpins + kYields) {
    ::sched_yield();
  } else {
    const NoCancellation guard;
    ::nanosleep(&kNap, nullptr);
  }
}

}  // namespace METRICS

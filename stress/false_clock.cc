#include "false_clock.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

namespace {

std::atomic<time_t> wall_clock_ahead{0};

timespec Wall() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

}  // namespace

// The names are the system's, those of the parameters ours: the program's own definitions go before
// those of the C library, also for calls from other libraries.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const auto result = static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
    now->tv_sec += wall_clock_ahead.load(std::memory_order_relaxed);
  }
  return result;
}

time_t time(time_t* out) noexcept {
  const time_t now = Wall().tv_sec;
  if (out != nullptr) {
    *out = now;
  }
  return now;
}

int gettimeofday(timeval* out, void* /*zone*/) noexcept {
  const timespec now = Wall();
  *out = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace tidegate::stress {

void SetWallClockAhead(std::chrono::seconds ahead) {
  wall_clock_ahead.store(static_cast<time_t>(ahead.count()));
}

}  // namespace tidegate::stress

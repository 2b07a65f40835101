#include "util/metric_clock_util.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iterator>

#include "util/metric_log.h"
#include "util/wait.h"
#include "util/wall_clock.h"

namespace METRICS {

namespace {

constexpr int kIntervals[] = {1, 5, 10, 15, 30, 60};

}  // namespace

// Never destroyed: a thread may still make a registry while the process exits.
const std::vector<int>& kValidFlushInterval =
    *new std::vector<int>(std::begin(kIntervals), std::end(kIntervals));

bool IsValidFlushInterval(int interval) {
  return std::find(std::begin(kIntervals), std::end(kIntervals), interval) != std::end(kIntervals);
}

int CheckFlushInterval(const int& interval) {
  constexpr int kDefaultInterval = 30;
  if (IsValidFlushInterval(interval)) {
    return interval;
  }
  METRICS_LOG_WARN("Input flush interval invalid, should be {1,5,10,15,30,60}, use 30 instead.\n");
  return kDefaultInterval;
}

bool SyncMilliStepSleep(const int& total_ms, const int& step_ms,
                        volatile std::atomic<MetricState>& state) {
  int64_t done = 0;  // wide enough for any two numbers that are given
  while (state.load() == MetricState::READY) {
    const int64_t left = total_ms - done;
    if (const ClockHooks* const hooks = HooksInPlace()) {
      hooks->pause(left, state);
      return state.load() == MetricState::READY;
    }
    if (left <= step_ms) {
      if (left >= 1) {
        SleepMillis(static_cast<int>(left));
      }
      return true;
    }
    if (step_ms > 0) {
      SleepMillis(step_ms);
    }
    done += step_ms;
  }
  return false;
}

void SleepMillis(int ms) {
  const NoCancellation no_cancellation;
  timespec left{ms / 1000, static_cast<long>(ms % 1000) * 1000000};
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

uint32_t CoarseMillis() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<uint32_t>(now.tv_sec * 1000 + now.tv_nsec / 1000000);
}

int64_t MillisSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

}  // namespace METRICS

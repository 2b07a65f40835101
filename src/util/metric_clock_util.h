#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "util/metric_common.h"

namespace METRICS {

/// The legal flush intervals in seconds.
extern const std::vector<int>& kValidFlushInterval;

/// Whether `interval` is one of these; also before their list is there, for static objects.
bool IsValidFlushInterval(int interval);

/// `interval` if it is in `kValidFlushInterval`; otherwise 30, with a Warn line.
int CheckFlushInterval(const int& interval);

/// Sleeps `total_ms` milliseconds in slices of `step_ms` while `state` is READY. False as soon as
/// it finds another state, before the first slice or after one of the others. After the last slice
/// it does not look: a stop in that one is for the caller to see, and costs at most one slice.
/// Signals do not shorten the sleep. The arguments are read anew at each use. With a `step_ms` of 0
/// it spins until the state changes. Where a test moves the time, the rest of the sleep is its
/// pause (`ClockHooks`).
bool SyncMilliStepSleep(const int& total_ms, const int& step_ms,
                        volatile std::atomic<MetricState>& state);

/// Sleeps `ms` milliseconds, through signals. Never cancelled.
void SleepMillis(int ms);

/// Milliseconds of a steady clock that is cheap to read and goes in steps of up to 10 ms; wraps
/// around.
uint32_t CoarseMillis();

/// Whole milliseconds on the steady clock since `start`.
int64_t MillisSince(std::chrono::steady_clock::time_point start);

}  // namespace METRICS

#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include "util/metric_common.h"
#include "util/metric_export.h"

namespace METRICS {

/// What takes the place of the system's clock, and of the sleeps of the library's threads, while a
/// test moves the time. Called from any thread; calls nothing of the library.
struct ClockHooks {
  using State = volatile std::atomic<MetricState>;

  /// As `time` of the C library, called with null.
  time_t (*seconds)(time_t*) noexcept;
  /// Since the epoch.
  int64_t (*micros)() noexcept;
  /// For a flush thread: waits until the clock has come to a multiple of `period_ms` or passed it,
  /// and puts the last one into `boundary_ms`. False when `state` is not READY any more, or when
  /// the hooks are not in place any more.
  bool (*wait_for_boundary)(int64_t period_ms, State& state, int64_t& boundary_ms);
  /// For the pause of a thread between two rounds: sleeps `pause_ms` of real time, or less when the
  /// test asks for a round, `state` is not READY any more, or the hooks are not in place any more.
  void (*pause)(int64_t pause_ms, State& state);
};

/// Puts `hooks`, which are good for ever, in the place of the system's clock; with null the
/// system's is in place again. Threads of the library that are asleep notice it within 200 ms.
METRICS_API void SetClockHooks(const ClockHooks* hooks);

/// The threads of this process that sleep by the hooks, from just before they are started until
/// just before they end. The forked child of a test has to set it to 0.
extern METRICS_API std::atomic<int> g_libraryThreads;

/// The hooks in place, or null.
const ClockHooks* HooksInPlace();

/// What `WallSeconds` calls: `::time`, or that of the hooks. To be called without a detour, it is
/// not exported.
extern __attribute__((visibility("hidden"))) std::atomic<time_t (*)(time_t*) noexcept>
    g_readSeconds;

/// Wall clock in whole seconds since the epoch, as cheap as a reading can be. It may lag behind
/// `WallMillis` by some milliseconds.
inline int64_t WallSeconds() noexcept {
  return g_readSeconds.load(std::memory_order_relaxed)(nullptr);
}

/// Wall clock in whole milliseconds since the epoch.
int64_t WallMillis();

/// Wall clock in whole microseconds since the epoch.
int64_t WallMicros();

}  // namespace METRICS

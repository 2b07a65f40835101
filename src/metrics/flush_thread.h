#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "util/stoppable_thread.h"

namespace METRICS {

/// The sleeping part of a sender: a thread that flushes at each wall-clock multiple of an interval,
/// counted from the epoch.
///
/// Threads: the thread owns the boundary in work and `work_state_` while it lives; others touch
/// them only after joining it. It looks at `state_` at least every 200 ms while it sleeps, and not
/// at all while it flushes. A flush that overruns its period misses the boundaries that pass
/// meanwhile; none is reported twice.
class FlushThread : public StoppableThread {
 public:
  /// What the thread last did; the numbers stand in the log.
  enum class WorkState : uint8_t {
    kIdle = 0,      ///< the loop was not entered
    kSleeping = 1,  ///< on its way to a boundary
    kSlept = 2,     ///< the boundary is taken, its flush not begun
    kWorking = 3,   ///< flushing
  };

  /// Sleeps to the next boundary of `interval` seconds and puts it into `flush_ts`, with a line
  /// about `tenant` if boundaries were missed since the one that was in it; `left_ms` is how long
  /// it had to sleep. False, and `flush_ts` as it was, when the sleep was given up. REQUIRES:
  /// `interval` is 1 to 2147483.
  bool AdjustTime(const std::string& tenant, long& flush_ts, int& left_ms, const int& interval);
  /// Length of a slice of sleep for a period, both in milliseconds.
  static int AdjustSleepStep(int interval_ms);

  std::atomic<int32_t> interval_{30};  ///< seconds; the running thread keeps what it started with
  WorkState work_state_ = WorkState::kIdle;

 protected:
  FlushThread() = default;
  ~FlushThread() = default;

  /// For the thread's body: waits until `state_` has left INIT, then puts each boundary of
  /// `interval_` into `boundary` (seconds since the epoch) as it comes and calls `flush`, until the
  /// thread is stopped or `flush` answers false. Returns at once, with a line, where the interval
  /// is below 1 or does not fit into milliseconds.
  void FlushAtBoundaries(const std::string& tenant, int64_t& boundary,
                         const std::function<bool()>& flush);
  /// After the thread's end: takes `boundary` back to the last one that was flushed, or with none
  /// (0) to the last one that has passed, and marks that the last flush begins. REQUIRES: no flush
  /// was running at the thread's end.
  void BeginLastFlush(int64_t& boundary, int interval);
  /// Whether this is a fork's teardown, and a thread of the parent may have been changing what its
  /// `Init` or a flush changes.
  bool WorkInterrupted() const;

 private:
  void Loop(const std::string& tenant, int64_t& boundary, int period_ms,
            const std::function<bool()>& flush);
  bool SleepToBoundary(const std::string& tenant, int64_t& flush_ts, int& left_ms, int period_ms,
                       int step_ms);
};

}  // namespace METRICS

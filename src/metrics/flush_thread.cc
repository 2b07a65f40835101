#include "metrics/flush_thread.h"

#include <cassert>
#include <limits>

#include "util/fork_guard.h"
#include "util/metric_clock_util.h"
#include "util/metric_log.h"
#include "util/wall_clock.h"

namespace METRICS {
namespace {

constexpr int kMillisPerSecond = 1000;
constexpr int kPollMillis = 200;
constexpr int kMaxInterval = std::numeric_limits<int32_t>::max() / kMillisPerSecond;

bool IsUsable(int interval) { return interval >= 1 && interval <= kMaxInterval; }

}  // namespace

int FlushThread::AdjustSleepStep(int interval_ms) {
  constexpr int kShortPeriod = 6;
  constexpr int kShortStep = 5;
  return interval_ms < kShortPeriod ? kShortStep : kPollMillis;
}

void FlushThread::FlushAtBoundaries(const std::string& tenant, int64_t& boundary,
                                    const std::function<bool()>& flush) {
  while (state_.load(std::memory_order_acquire) == MetricState::INIT) {
    SleepMillis(HooksInPlace() != nullptr ? 1 : kPollMillis);
  }
  const int interval = interval_.load();
  if (!IsUsable(interval)) {
    METRICS_LOG_WARN("Sender[%s] start fialed, internal error with interval less than 0.\n",
                     tenant.c_str());
    return;
  }
  Loop(tenant, boundary, interval * kMillisPerSecond, flush);
}

void FlushThread::Loop(const std::string& tenant, int64_t& boundary, int period_ms,
                       const std::function<bool()>& flush) {
  const int step_ms = AdjustSleepStep(period_ms);
  while (Running()) {
    work_state_ = WorkState::kSleeping;
    int left_ms = 0;
    if (!SleepToBoundary(tenant, boundary, left_ms, period_ms, step_ms)) {
      return;
    }
    work_state_ = WorkState::kSlept;
    METRICS_LOG_DEBUG("flush timestamp[%lds], left inteval[%dms]\n", boundary, left_ms);
    if (!Running()) {
      return;
    }
    work_state_ = WorkState::kWorking;
    if (!flush()) {
      return;
    }
  }
}

bool FlushThread::SleepToBoundary(const std::string& tenant, int64_t& flush_ts, int& left_ms,
                                  int period_ms, int step_ms) {
  int64_t now_ms = 0;
  do {
    while (const ClockHooks* const hooks = HooksInPlace()) {
      int64_t boundary_ms = 0;
      if (hooks->wait_for_boundary(period_ms, state_, boundary_ms)) {
        flush_ts = boundary_ms / kMillisPerSecond;
        left_ms = 0;
        return true;
      }
      if (!Running()) {
        return false;
      }
    }
    now_ms = WallMillis();
    left_ms = static_cast<int>(period_ms - now_ms % period_ms);
    if (!SyncMilliStepSleep(left_ms, step_ms, state_)) {
      return false;
    }
  } while (HooksInPlace() != nullptr);  // a test has taken the clock over meanwhile
  // The boundary that was aimed at, whatever the sleep really took.
  const int64_t boundary_ms = (now_ms + left_ms) / period_ms * period_ms;
  const int64_t boundary = boundary_ms / kMillisPerSecond;
  if (flush_ts != 0 && boundary - flush_ts > period_ms / kMillisPerSecond) {
    METRICS_LOG_WARN("Sender[%s]Last send timeout, last_timetamp: %ld, now: %ld\n", tenant.c_str(),
                     flush_ts, boundary);
  }
  flush_ts = boundary;
  return true;
}

bool FlushThread::AdjustTime(const std::string& tenant, long& flush_ts, int& left_ms,
                             const int& interval) {
  assert(IsUsable(interval));
  const int period_ms = interval * kMillisPerSecond;
  return SleepToBoundary(tenant, flush_ts, left_ms, period_ms, AdjustSleepStep(period_ms));
}

void FlushThread::BeginLastFlush(int64_t& boundary, int interval) {
  assert(work_state_ != WorkState::kWorking);
  if (work_state_ == WorkState::kSlept) {
    boundary -= interval;
  }
  work_state_ = WorkState::kWorking;
  if (boundary == 0) {
    const int64_t now_s = WallMillis() / kMillisPerSecond;
    boundary = interval > 0 ? now_s - now_s % interval : now_s;
  }
}

bool FlushThread::WorkInterrupted() const {
  return InForkTeardown() &&
         (state_.load() == MetricState::INIT || work_state_ == WorkState::kWorking);
}

}  // namespace METRICS

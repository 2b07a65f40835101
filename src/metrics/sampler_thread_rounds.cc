#include <exception>

#include "metrics/sampler_thread.h"
#include "util/metric_log.h"
#include "util/wall_clock.h"

namespace METRICS {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int64_t kTenth = 10;
constexpr milliseconds kLookAtHooks{200};
constexpr std::chrono::minutes kFailurePause{1};

int64_t MillisBetween(steady_clock::time_point from, steady_clock::time_point to) {
  return std::chrono::duration_cast<milliseconds>(to - from).count();
}

}  // namespace

void SamplerThread::BeforeFlush() {
  std::shared_ptr<SamplerJob> job;
  int64_t lasted_ms = 0;
  {
    const WriteGuard guard(mutex_);
    if (current_ == nullptr || current_->late_told) {
      return;
    }
    // A round that began just now, before a boundary of another tenant, is in time.
    lasted_ms = MillisBetween(round_began_, Clock::now());
    if (lasted_ms < lead_ms_ / 2) {
      return;
    }
    current_->late_told = true;
    job = current_->self;
  }
  METRICS_LOG_ERROR(
      "Sampler[%s] still runs, %ld ms after the samplers were asked: values are late\n",
      job->name.c_str(), static_cast<long>(lasted_ms));
}

void SamplerThread::Run() {
  EnterThread("ms_sampler");
  // A test that moves the time asks for rounds, and has no sleep of this thread to wait for.
  g_libraryThreads.fetch_sub(1);
  const WriteGuard guard(mutex_);
  while (starting_) {
    changed_.Wait(mutex_);
  }
  worker_ = std::this_thread::get_id();
  bool last = false;
  while (!last && !given_up_) {
    last = !Running();
    const uint64_t wanted = rounds_wanted_;
    if (last || rounds_done_ != wanted || IsDue()) {
      asked_boundary_ms_ = NextBoundary(WallMillis());
      AskAll();
      rounds_done_ = wanted;
      changed_.NotifyAll();
    }
  }
  g_libraryThreads.fetch_add(1);
  gone_ = true;
  changed_.NotifyAll();
}

int64_t SamplerThread::NextBoundary(int64_t now_ms) const {
  return now_ms - now_ms % period_ms_ + period_ms_;
}

/// Waits until it is time, or something has changed.
bool SamplerThread::IsDue() {
  if (HooksInPlace() != nullptr) {
    // A clock that stands still has no time to ask at: a test asks by `AskNow`.
    changed_.WaitUntil(mutex_, Clock::now() + kLookAtHooks);
    return false;
  }
  const int64_t now_ms = WallMillis();
  int64_t boundary_ms = NextBoundary(now_ms);
  if (boundary_ms == asked_boundary_ms_) {
    boundary_ms += period_ms_;
  }
  const int64_t left_ms = boundary_ms - lead_ms_ - now_ms;
  if (left_ms > 0) {
    changed_.WaitUntil(mutex_, Clock::now() + milliseconds(left_ms));
  }
  return left_ms <= 0;
}

void SamplerThread::AskAll() {
  round_began_ = Clock::now();
  current_ = given_up_ ? nullptr : jobs_.Front();
  while (current_ != nullptr) {
    SamplerJob& job = *current_;
    mutex_.Unlock();
    Ask(job);
    mutex_.Lock();
    std::shared_ptr<SamplerJob> ended;
    if (job.ended.load()) {
      mutex_.Unlock();
      job.run = nullptr;
      mutex_.Lock();
      current_ = Jobs::Next(job);
      ended = Unlink(job);
    } else {
      current_ = Jobs::Next(job);
    }
    if (given_up_) {
      current_ = nullptr;
    }
    changed_.NotifyAll();
  }
}

void SamplerThread::Ask(SamplerJob& job) {
  const Clock::time_point began = Clock::now();
  try {
    job.run();
  } catch (const std::exception& error) {
    TellFailure(job, error.what());
  } catch (...) {
    TellFailure(job, "not a std::exception");
  }
  const int64_t took_ms = MillisBetween(began, Clock::now());
  if (took_ms > period_ms_ / kTenth && !job.slow_told) {
    job.slow_told = true;
    METRICS_LOG_WARN("Sampler[%s] took %ld ms, more than a tenth of the interval\n",
                     job.name.c_str(), static_cast<long>(took_ms));
  }
}

void SamplerThread::TellFailure(SamplerJob& job, const char* what) {
  const uint64_t failures = job.failures.fetch_add(1, std::memory_order_relaxed) + 1;
  const Clock::time_point now = Clock::now();
  if (failures == 1 || now - job.failure_told >= kFailurePause) {
    job.failure_told = now;
    METRICS_LOG_ERROR("Sampler[%s] threw (%lu times so far): %s\n", job.name.c_str(),
                      static_cast<unsigned long>(failures), what);
  }
}

}  // namespace METRICS

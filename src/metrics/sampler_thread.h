#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "metrics/flush_watch.h"
#include "tidegate/sampler.h"
#include "util/condition.h"
#include "util/linked_list.h"
#include "util/metric_export.h"
#include "util/metric_lock.h"
#include "util/stoppable_thread.h"

namespace METRICS {

class SamplerThread;

/// What a `Sampler` is a handle of.
struct SamplerJob : Linked<SamplerJob> {
  SamplerJob(std::string job_name, std::function<void()> job,
             std::shared_ptr<SamplerThread> asked_by)
      : name(std::move(job_name)), run(std::move(job)), thread(std::move(asked_by)) {}

  const std::string name;
  /// The thread's while this is its current job, else of whoever ends it.
  std::function<void()> run;
  const std::shared_ptr<SamplerThread> thread;  ///< null without a handle

  std::atomic<bool> ended{false};     ///< set under the thread's lock; without it in a child
  std::atomic<uint64_t> failures{0};  ///< written by the thread
  // Under the thread's lock.
  std::shared_ptr<SamplerJob> self;  ///< while it is in the thread's list
  bool late_told = false;
  // The thread's alone.
  bool slow_told = false;
  std::chrono::steady_clock::time_point failure_told{};
};

/// The samplers of one `Metrics`, and the thread "ms_sampler" that asks them. It is started with
/// the first one and asks all of them shortly before each boundary of the interval.
///
/// The lead before a boundary is a tenth of the interval and a second at most. That is time for
/// 10,000 callbacks that read a counter under a lock, with some tens of milliseconds for a busy
/// processor to wake the thread; and no value is older than that when it is flushed. A thread that
/// wakes after the boundary leaves that interval out.
///
/// Threads: `Add` and the ends of samplers from any; the others are the owner's, one at a time. No
/// lock is held while a job runs or a line is printed. A round allocates nothing. Ownership: held
/// by its owner, by its thread and by its samplers. A job that never returns keeps the thread, and
/// so this object, for ever, whatever becomes of the owner.
class SamplerThread final : public StoppableThread,
                            public FlushWatch,
                            public Linked<SamplerThread>,
                            public std::enable_shared_from_this<SamplerThread> {
 public:
  /// `interval` is in seconds; what is no interval counts as the next one that is. To be made by
  /// `std::make_shared`. Starts nothing.
  explicit SamplerThread(int64_t interval);
  ~SamplerThread();

  /// Has `run` called in each round until the sampler ends. `name` is for the log. The sampler is
  /// empty, with a reason, after the end and where there is no thread to be had.
  tidegate::Sampler Add(std::string name, std::function<void()> run);
  /// The same until the end, without a handle. Does nothing with a second one of a name.
  void Keep(std::string name, std::function<void()> run);
  /// An empty sampler.
  static tidegate::Sampler Refuse(std::string why) { return tidegate::Sampler(std::move(why)); }
  /// As `Sampler::End`.
  void End(SamplerJob& job);

  /// Asks all once more, and ends the thread. Waits for that for two seconds at most; a job that
  /// takes longer is told by an Error line, and the thread ends after it without asking anybody
  /// else. Called by a job it waits for nothing. Afterwards no sampler can be added. Safe twice.
  void Stop();
  /// For the child of a fork: forgets the thread and keeps the jobs, until `Resume`. Does nothing
  /// in the process of the thread.
  void AtFork();
  /// After `AtFork`: starts a thread if there are jobs. False where there is none to be had.
  bool Resume();

  /// Has all asked once, and waits for it for five seconds at most. The coming boundary counts as
  /// asked for. Does nothing without a thread, and when called by a job.
  void AskNow();

  /// Tells of a round that should be over by now, with the name of the job that it is at.
  void BeforeFlush() override;

 private:
  enum class Service : uint8_t { kOn, kPaused, kEnded };
  using Clock = std::chrono::steady_clock;
  using Jobs = LinkedList<SamplerJob>;

  bool Start();
  /// Puts the job into the list and sees to the thread; else says why not.
  const char* Take(const std::shared_ptr<SamplerJob>& job);
  bool IsKept(const std::string& name) const METRICS_REQUIRES(mutex_);
  void WaitForOtherStop() METRICS_REQUIRES(mutex_);
  void LeaveThread();
  void RepairAfterFork();

  // Bodies of the thread.
  void Run();
  bool IsDue() METRICS_REQUIRES(mutex_);
  void AskAll() METRICS_REQUIRES(mutex_);
  void Ask(SamplerJob& job);
  void TellFailure(SamplerJob& job, const char* what);

  /// Out of the list, which gives its share of the job to the caller.
  std::shared_ptr<SamplerJob> Unlink(SamplerJob& job) METRICS_REQUIRES(mutex_);
  int64_t NextBoundary(int64_t now_ms) const;

  const int64_t period_ms_;
  const int64_t lead_ms_;
  std::atomic<pid_t> process_;  ///< where the thread runs, if it does

  Mutex mutex_;
  Condition changed_;  ///< of anything below
  Jobs jobs_ METRICS_GUARDED_BY(mutex_);
  Service service_ METRICS_GUARDED_BY(mutex_) = Service::kOn;
  bool starting_ METRICS_GUARDED_BY(mutex_) = false;
  bool gone_ METRICS_GUARDED_BY(mutex_) = false;      ///< the thread has left its loop
  bool given_up_ METRICS_GUARDED_BY(mutex_) = false;  ///< the thread asks nobody any more
  uint64_t rounds_wanted_ METRICS_GUARDED_BY(mutex_) = 0;
  uint64_t rounds_done_ METRICS_GUARDED_BY(mutex_) = 0;
  // Written by the thread.
  std::thread::id worker_ METRICS_GUARDED_BY(mutex_);
  int64_t asked_boundary_ms_ METRICS_GUARDED_BY(mutex_) = 0;
  SamplerJob* current_ METRICS_GUARDED_BY(mutex_) = nullptr;  ///< in the list
  Clock::time_point round_began_ METRICS_GUARDED_BY(mutex_){};
};

/// `SamplerThread::AskNow` for all threads of the process, one after the other.
METRICS_API void AskSamplersNow();

}  // namespace METRICS

#include "metrics/sampler_thread.h"

#include <unistd.h>

#include <algorithm>
#include <type_traits>
#include <vector>

#include "util/fork_guard.h"
#include "util/log_scope.h"
#include "util/metric_log.h"
#include "util/wait.h"
#include "util/within_memory.h"

namespace METRICS {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int64_t kMillisPerSecond = 1000;
constexpr int64_t kLongestInterval = 1000000000;  // anything that fits into milliseconds
constexpr int64_t kLongestLeadMillis = 1000;
constexpr int64_t kShareOfLead = 10;
constexpr milliseconds kLongestEnd{2000};
constexpr milliseconds kLongestAsk{5000};

/// The sampler threads of the process, for `AskSamplersNow`.
class RunningThreads {
 public:
  void Add(SamplerThread& thread) {
    const WriteGuard guard(mutex_);
    threads_.PushFront(thread);
  }
  /// Does nothing with one that is not there.
  void Remove(SamplerThread& thread) {
    const WriteGuard guard(mutex_);
    threads_.RemoveIfThere(thread);
  }
  std::vector<std::shared_ptr<SamplerThread>> All() {
    std::vector<std::shared_ptr<SamplerThread>> all;
    const WriteGuard guard(mutex_);
    for (SamplerThread* thread = threads_.Front(); thread != nullptr;
         thread = LinkedList<SamplerThread>::Next(*thread)) {
      all.push_back(thread->shared_from_this());
    }
    return all;
  }
  /// Once in a forked child, before it makes a thread that could be using this.
  void RepairAfterFork() METRICS_NO_THREAD_SAFETY {
    if (repaired_in_.exchange(::getpid()) != ::getpid()) {
      mutex_.ReinitAfterFork();
      threads_.RepairAfterFork();
    }
  }

 private:
  std::atomic<pid_t> repaired_in_{0};
  Mutex mutex_;
  LinkedList<SamplerThread> threads_ METRICS_GUARDED_BY(mutex_);
};

// Made before all code runs and never destroyed: for static objects that have samplers.
RunningThreads g_running;
static_assert(std::is_trivially_destructible_v<RunningThreads>);

}  // namespace

SamplerThread::SamplerThread(int64_t interval)
    : period_ms_(std::clamp<int64_t>(interval, 1, kLongestInterval) * kMillisPerSecond),
      lead_ms_(std::min(period_ms_ / kShareOfLead, kLongestLeadMillis)),
      process_(::getpid()) {}

SamplerThread::~SamplerThread() METRICS_NO_THREAD_SAFETY {
  // What is left has no handles, and nobody else knows this object. What it calls dies here, and
  // takes locks.
  while (jobs_.Front() != nullptr) {
    Unlink(*jobs_.Front());
  }
}

tidegate::Sampler SamplerThread::Add(std::string name, std::function<void()> run) {
  const auto job =
      std::make_shared<SamplerJob>(std::move(name), std::move(run), shared_from_this());
  const char* const refusal = Take(job);
  return refusal == nullptr ? tidegate::Sampler(job) : Refuse(refusal);
}

void SamplerThread::Keep(std::string name, std::function<void()> run) {
  Take(std::make_shared<SamplerJob>(std::move(name), std::move(run), nullptr));
}

const char* SamplerThread::Take(const std::shared_ptr<SamplerJob>& job) {
  if (::getpid() != process_.load()) {
    return "the child of a fork begins with AtFork";
  }
  {
    const WriteGuard guard(mutex_);
    if (service_ == Service::kEnded) {
      return "the metrics have ended";
    }
    if (job->thread == nullptr && IsKept(job->name)) {
      return "it is kept already";
    }
    job->self = job;
    jobs_.PushFront(*job);
  }
  if (!Start()) {
    End(*job);
    return "there is no thread to be had";
  }
  return nullptr;
}

bool SamplerThread::IsKept(const std::string& name) const {
  for (const SamplerJob* job = jobs_.Front(); job != nullptr; job = Jobs::Next(*job)) {
    if (job->thread == nullptr && job->name == name) {
      return true;
    }
  }
  return false;
}

bool SamplerThread::Start() {
  const NoCancellation uncancelled;
  const LogScope lines;  // a sink may add a sampler
  {
    const WriteGuard guard(mutex_);
    // Of two that start it at the same time, the later one tries it if the other could not.
    while (starting_) {
      changed_.Wait(mutex_);
    }
    if (service_ != Service::kOn || state_.load() != MetricState::INIT) {
      return true;
    }
    starting_ = true;
  }
  ReturnCode code = ReturnCode::kAllocCollectorError;
  RunWithinMemory("Samplers", "the start of their thread", [&] {
    code = StartThread("ms_sampler", [self = shared_from_this()] { self->Run(); });
  });
  const bool started = code == ReturnCode::kOk;
  if (started) {
    g_running.Add(*this);
  }
  const WriteGuard guard(mutex_);
  starting_ = false;
  if (started) {
    state_.store(MetricState::READY);
  }
  changed_.NotifyAll();
  return started;
}

void SamplerThread::End(SamplerJob& job) {
  const NoCancellation uncancelled;
  if (job.ended.exchange(true)) {
    return;  // in a child, whose parent was ending it
  }
  if (::getpid() != process_.load()) {
    return;  // the lock may be held by nobody; what is in the list stays for `AtFork`
  }
  std::shared_ptr<SamplerJob> unlinked;
  std::function<void()> run;
  const WriteGuard guard(mutex_);
  if (current_ != &job) {
    unlinked = Unlink(job);
    run.swap(job.run);
  } else if (worker_ != std::this_thread::get_id()) {
    while (current_ == &job) {
      changed_.Wait(mutex_);
    }
  }
}

std::shared_ptr<SamplerJob> SamplerThread::Unlink(SamplerJob& job) {
  if (job.self != nullptr) {
    jobs_.Remove(job);
  }
  return std::move(job.self);
}

void SamplerThread::Stop() {
  const NoCancellation uncancelled;
  if (::getpid() != process_.load()) {
    RepairAfterFork();
    return;
  }
  bool in_time = false;
  {
    const WriteGuard guard(mutex_);
    while (starting_) {
      changed_.Wait(mutex_);
    }
    if (service_ == Service::kPaused) {
      return;  // as after `AtFork`: `Resume` may come
    }
    service_ = Service::kEnded;
    if (state_.load() != MetricState::READY) {
      WaitForOtherStop();
      return;
    }
    state_.store(MetricState::SHUTDOWN);
    changed_.NotifyAll();
    const auto until = steady_clock::now() + kLongestEnd;
    while (worker_ != std::this_thread::get_id() && !gone_ && changed_.WaitUntil(mutex_, until)) {
    }
    in_time = gone_;
    given_up_ = true;
    changed_.NotifyAll();
  }
  g_running.Remove(*this);
  if (in_time) {
    JoinThread();
  } else {
    LeaveThread();
  }
}

/// Its last round has to come before the last flush of this caller, too.
void SamplerThread::WaitForOtherStop() {
  while (state_.load() == MetricState::SHUTDOWN && !given_up_ &&
         worker_ != std::this_thread::get_id()) {
    changed_.Wait(mutex_);
  }
}

void SamplerThread::LeaveThread() {
  thread_.detach();
  std::shared_ptr<SamplerJob> job;
  {
    const WriteGuard guard(mutex_);
    job = current_ != nullptr ? current_->self : nullptr;
  }
  METRICS_LOG_ERROR("Sampler[%s] still runs: the end does not wait for it\n",
                    job != nullptr ? job->name.c_str() : "");
}

void SamplerThread::AtFork() {
  if (::getpid() != process_.load()) {
    RepairAfterFork();
  }
}

void SamplerThread::RepairAfterFork() METRICS_NO_THREAD_SAFETY {
  g_running.RepairAfterFork();
  g_running.Remove(*this);
  process_.store(::getpid());
  state_.store(MetricState::INIT);
  Abandon(thread_);
  mutex_.ReinitAfterFork();
  Abandon(changed_);
  service_ = Service::kPaused;
  starting_ = false;
  gone_ = false;
  given_up_ = false;
  current_ = nullptr;
  worker_ = {};
  rounds_done_ = rounds_wanted_;
  jobs_.RepairAfterFork();
  for (SamplerJob* job = jobs_.Front(); job != nullptr;) {
    SamplerJob* const next = Jobs::Next(*job);
    if (job->ended.load()) {
      // Leaked: its callback may have been running.
      jobs_.Remove(*job);
    }
    job = next;
  }
}

bool SamplerThread::Resume() {
  {
    const WriteGuard guard(mutex_);
    if (service_ == Service::kPaused) {
      service_ = Service::kOn;
    }
    if (jobs_.Front() == nullptr) {
      return true;
    }
  }
  return Start();
}

void SamplerThread::AskNow() {
  if (::getpid() != process_.load()) {
    return;
  }
  const WriteGuard guard(mutex_);
  if (state_.load() != MetricState::READY || worker_ == std::this_thread::get_id()) {
    return;
  }
  const uint64_t wanted = ++rounds_wanted_;
  changed_.NotifyAll();
  const auto until = steady_clock::now() + kLongestAsk;
  while (!gone_ && rounds_done_ < wanted && changed_.WaitUntil(mutex_, until)) {
  }
}

void AskSamplersNow() {
  for (const std::shared_ptr<SamplerThread>& thread : g_running.All()) {
    thread->AskNow();
  }
}

}  // namespace METRICS

namespace tidegate {

void Sampler::End() noexcept {
  if (job_ != nullptr) {
    job_->thread->End(*job_);
    job_.reset();
  }
}

uint64_t Sampler::Failures() const noexcept {
  return job_ != nullptr ? job_->failures.load(std::memory_order_relaxed) : 0;
}

}  // namespace tidegate

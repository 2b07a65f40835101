#pragma once

#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "agent/report.h"
#include "util/condition.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// Writes pages on a thread of its own, one at a time, so that a long one delays nothing else.
//
// Threads: `write`, `report` and `on_made` are called on its own; all methods from one.
class PageMaker {
 public:
  // `write` appends a page; if it throws, there is no page, and `report` gets a line. `on_made`
  // says that there is something to take; it must not throw.
  PageMaker(std::function<void(std::string*)> write, Report report, std::function<void()> on_made);
  ~PageMaker() { Stop(); }
  PageMaker(const PageMaker&) = delete;
  PageMaker& operator=(const PageMaker&) = delete;

  // Throws std::system_error if there can be no thread.
  void Start();
  // Waits for the page that is being written. Safe twice.
  void Stop();

  // Begins a page. REQUIRES: the one before has been taken.
  void Make();
  // Whether the page has been written or has failed; if so it is handed over, in the latter case
  // without a value. Once for each.
  bool Take(std::optional<std::string>* page);

 private:
  enum class State { kIdle, kAsked, kMade, kStopped };

  void Run();
  // False once it is stopped.
  bool WaitUntilAsked();
  std::optional<std::string> Write() noexcept;

  const std::function<void(std::string*)> write_;
  const Report report_;
  const std::function<void()> on_made_;
  size_t last_size_ = 0;  // of its thread
  METRICS::Mutex mutex_;
  METRICS::Condition changed_;
  State state_ METRICS_GUARDED_BY(mutex_) = State::kIdle;
  std::optional<std::string> page_ METRICS_GUARDED_BY(mutex_);
  std::thread thread_;  // only of the callers' thread
};

}  // namespace tidegate::agent

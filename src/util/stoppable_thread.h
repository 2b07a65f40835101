#pragma once

#include <atomic>
#include <cassert>
#include <functional>
#include <system_error>
#include <thread>
#include <utility>

#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_log.h"
#include "util/wall_clock.h"

namespace METRICS {

/// A thread of the library and the one signal that stops it; its owner derives from this.
///
/// The thread runs functions of its owner. They poll `state_` at the end of each slice of a sleep
/// (`SyncMilliStepSleep`) and between two pieces of work: nothing wakes them. The state goes from
/// INIT over READY, which the owner stores, to SHUTDOWN, and not back.
///
/// Threads: `StartThread`, `StopThread` and `JoinThread` on one thread at a time. The owner ends
/// the thread before its own members go: a thread that is still joinable ends the process.
struct StoppableThread {
  StoppableThread(const StoppableThread&) = delete;
  StoppableThread& operator=(const StoppableThread&) = delete;

  volatile std::atomic<MetricState> state_{MetricState::INIT};  ///< any thread may store SHUTDOWN
  std::thread thread_;

 protected:
  StoppableThread() = default;
  ~StoppableThread() = default;

  /// Starts `work` on the thread. 17, with an Error line, when the system has no thread to give;
  /// `thread_` is not joinable then. REQUIRES: it is not joinable before.
  template <class... Work>
  ReturnCode StartThread(const char* name, Work&&... work) {
    assert(!thread_.joinable());
    const auto counted = [](auto&&... call) {
      std::invoke(std::move(call)...);
      g_libraryThreads.fetch_sub(1);
    };
    g_libraryThreads.fetch_add(1);
    try {
      thread_ = std::thread(counted, std::forward<Work>(work)...);
    } catch (const std::system_error& error) {
      g_libraryThreads.fetch_sub(1);
      METRICS_LOG_ERROR("Thread %s not started: %s\n", name, error.what());
      return ReturnCode::kAllocCollectorError;
    } catch (...) {  // for want of memory
      g_libraryThreads.fetch_sub(1);
      throw;
    }
    return ReturnCode::kOk;
  }

  /// What each thread of the library does first: gives itself `name`, of 15 bytes at most, and
  /// leaves the thread slots to the threads of the service.
  static void EnterThread(const char* name);

  /// Whether the owner is in service. What it wrote before it stored READY is seen then.
  bool Running() const { return state_.load(std::memory_order_acquire) == MetricState::READY; }

  /// Stores SHUTDOWN and waits for the thread to end, if there is one. False in the teardown of a
  /// forked child, where the thread does not exist: its handle is abandoned, and what only the
  /// thread changes may be half changed.
  bool StopThread();
  /// Waits for the thread to end, if there is one.
  void JoinThread();
};

}  // namespace METRICS

#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace shop {

/// Threads that run jobs in the order in which they came. Any thread may call.
class WorkerPool {
 public:
  WorkerPool(size_t threads, size_t max_waiting);
  /// Runs the jobs that wait, then ends.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  /// False, and no job taken, if `max_waiting` jobs wait already. A job must not throw.
  bool Submit(std::function<void()> job);
  /// How many jobs wait.
  size_t Length();

 private:
  void Work();

  const size_t max_waiting_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> jobs_;
  bool closed_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace shop

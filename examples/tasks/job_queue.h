#pragma once

#include <deque>
#include <mutex>

/// The queue of the task `queue_gauge`. Any thread may call.
class JobQueue {
 public:
  void Push(int job) {
    const std::lock_guard<std::mutex> guard(mutex_);
    jobs_.push_back(job);
  }

  void Pop() {
    const std::lock_guard<std::mutex> guard(mutex_);
    jobs_.pop_front();
  }

  double Length() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return static_cast<double>(jobs_.size());
  }

 private:
  std::mutex mutex_;
  std::deque<int> jobs_;
};

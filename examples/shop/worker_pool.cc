#include "worker_pool.h"

#include <utility>

namespace shop {

WorkerPool::WorkerPool(size_t threads, size_t max_waiting) : max_waiting_(max_waiting) {
  for (size_t i = 0; i < threads; ++i) {
    threads_.emplace_back(&WorkerPool::Work, this);
  }
}

WorkerPool::~WorkerPool() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    closed_ = true;
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

bool WorkerPool::Submit(std::function<void()> job) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (jobs_.size() >= max_waiting_) return false;
  jobs_.push_back(std::move(job));
  wake_.notify_one();
  return true;
}

size_t WorkerPool::Length() {
  const std::lock_guard<std::mutex> guard(mutex_);
  return jobs_.size();
}

void WorkerPool::Work() {
  for (;;) {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return closed_ || !jobs_.empty(); });
    if (jobs_.empty()) return;
    const std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
  }
}

}  // namespace shop

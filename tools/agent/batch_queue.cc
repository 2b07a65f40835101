#include "agent/batch_queue.h"

#include <algorithm>

namespace tidegate::agent {
namespace {

// A full queue drops whole batches, so a batch must be a small part of it.
constexpr uint64_t kBatchesInQueue = 10;

// Behind Flush; a pause may have been worked out just before.
constexpr std::chrono::milliseconds kLongestFlushPause{500};

BatchLimits Sane(BatchLimits limits) {
  limits.batch_points =
      std::clamp<uint64_t>(limits.queue_points / kBatchesInQueue, 1, limits.batch_points);
  limits.batch_bytes =
      std::clamp<size_t>(limits.queue_bytes / kBatchesInQueue, 1, limits.batch_bytes);
  return limits;
}

}  // namespace

BatchQueue::BatchQueue(const BatchLimits& limits) : limits_(Sane(limits)) {}

uint64_t BatchQueue::Append(std::string_view lines, uint64_t points) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (OpenPoints() + points > limits_.batch_points) CloseOpen();
  if (open_.empty()) {
    Batches batch(1);
    batch.front().body = lines;
    open_.swap(batch);
    open_since_ = Clock::now();
    changed_.notify_one();  // it has a time to be closed at now
  } else {
    open_.front().body += lines;
  }
  open_.front().points += points;
  if (OpenPoints() >= limits_.batch_points || open_.front().body.size() >= limits_.batch_bytes) {
    CloseOpen();
    changed_.notify_one();
  }
  return DropAboveLimits();
}

Batches BatchQueue::Take(Clock::time_point until) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    const Clock::time_point now = Clock::now();
    if (!open_.empty() && (flushing_ || now >= open_since_ + limits_.interval)) CloseOpen();
    if (!packed_.empty() && now >= send_at_) return Pop(&packed_);
    if (!raw_.empty()) return Pop(&raw_);
    if (now >= until || (flushing_ && packed_.empty())) return {};
    changed_.wait_until(lock, NextEvent(until));
  }
}

uint64_t BatchQueue::ReturnPacked(Batches batch) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Count(batch.front());
  packed_.splice(packed_.end(), batch);
  return DropAboveLimits();
}

uint64_t BatchQueue::ReturnUnsent(Batches batch, Clock::time_point retry_at) {
  const std::lock_guard<std::mutex> lock(mutex_);
  send_at_ = flushing_ ? std::min(retry_at, Clock::now() + kLongestFlushPause) : retry_at;
  Count(batch.front());
  packed_.splice(packed_.begin(), batch);
  return DropAboveLimits();
}

void BatchQueue::Flush() {
  const std::lock_guard<std::mutex> lock(mutex_);
  flushing_ = true;
  send_at_ = Clock::now();
  changed_.notify_one();
}

uint64_t BatchQueue::Clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t points = size_.points + OpenPoints();
  packed_.clear();
  raw_.clear();
  open_.clear();
  size_ = QueueSize();
  return points;
}

QueueSize BatchQueue::Size() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t open_bytes = open_.empty() ? 0 : open_.front().body.size();
  return {size_.points + OpenPoints(), size_.bytes + open_bytes};
}

void BatchQueue::CloseOpen() {
  if (open_.empty()) return;
  Count(open_.front());
  raw_.splice(raw_.end(), open_);
}

void BatchQueue::Count(const Batch& batch) {
  size_.points += batch.points;
  size_.bytes += batch.body.capacity();
}

Batches BatchQueue::Pop(Batches* batches) {
  Batches batch;
  batch.splice(batch.end(), *batches, batches->begin());
  size_.points -= batch.front().points;
  size_.bytes -= batch.front().body.capacity();
  return batch;
}

uint64_t BatchQueue::DropAboveLimits() {
  uint64_t dropped = 0;
  while (size_.points > limits_.queue_points || size_.bytes > limits_.queue_bytes) {
    dropped += Pop(packed_.empty() ? &raw_ : &packed_).front().points;
  }
  return dropped;
}

BatchQueue::Clock::time_point BatchQueue::NextEvent(Clock::time_point until) const {
  Clock::time_point next = until;
  if (!packed_.empty()) next = std::min(next, send_at_);
  if (!open_.empty()) next = std::min(next, open_since_ + limits_.interval);
  return next;
}

}  // namespace tidegate::agent

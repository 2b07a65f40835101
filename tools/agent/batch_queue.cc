#include "agent/batch_queue.h"

#include <algorithm>
#include <utility>

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;
using WallClock = std::chrono::system_clock;

// A full queue drops whole batches, so a batch must be a small part of it.
constexpr uint64_t kBatchesInQueue = 10;

// The spool gets the batches above this part of the queue.
constexpr uint64_t kMarkDivisor = 2;

// Points that wait for the time of a spread take no more than this part.
constexpr uint64_t kSpreadDivisor = 4;

// After Flush; a pause may have been set just before.
constexpr std::chrono::milliseconds kLongestFlushPause{500};

BatchLimits Sane(BatchLimits limits) {
  limits.batch_points =
      std::clamp<uint64_t>(limits.queue_points / kBatchesInQueue, 1, limits.batch_points);
  limits.batch_bytes =
      std::clamp<size_t>(limits.queue_bytes / kBatchesInQueue, 1, limits.batch_bytes);
  return limits;
}

}  // namespace

BatchQueue::BatchQueue(const BatchLimits& limits, std::function<bool()> has_spooled)
    : limits_(Sane(limits)),
      has_spooled_(std::move(has_spooled)),
      times_(limits.send, limits.interval),
      spooling_(has_spooled_ != nullptr) {}

uint64_t BatchQueue::Append(std::string_view lines, uint64_t points) {
  const WriteGuard lock(mutex_);
  times_.Came(WallClock::now(), points);
  if (OpenPoints() + points > limits_.batch_points) CloseOpen();
  if (open_.empty()) {
    Batches batch(1);
    batch.front().body = lines;
    open_.swap(batch);
    open_since_ = Clock::now();
    changed_.NotifyAll();  // it has a time to be closed at now
  } else {
    open_.front().body += lines;
  }
  open_.front().points += points;
  if (OpenPoints() >= limits_.batch_points || open_.front().body.size() >= limits_.batch_bytes) {
    CloseOpen();
    changed_.NotifyAll();
  }
  return DropAboveLimits();
}

Batches BatchQueue::Take(Clock::time_point until) {
  const WriteGuard lock(mutex_);
  taken_points_ = 0;
  packing_ = false;
  while (true) {
    const Clock::time_point now = Clock::now();
    if (IsOpenDue(now)) CloseOpen();
    const Next next = WhatIsNext();
    if (next == Next::kSpooled) times_.CatchUp();
    if (IsSendable(next) && now >= times_.send_at()) {
      return next == Next::kPacked ? PopToSend(&packed_) : Batches();
    }
    if (!raw_.empty()) {
      packing_ = true;
      return PopToSend(&raw_);
    }
    if (next == Next::kNothing && times_.is_open()) times_.Emptied(now, WallClock::now());
    if (now >= until || (ended_ && next == Next::kNothing)) return {};
    changed_.WaitUntil(mutex_, NextEvent(until, next));
  }
}

bool BatchQueue::IsSpooledDue() const {
  const WriteGuard lock(mutex_);
  return WhatIsNext() == Next::kSpooled && Clock::now() >= times_.send_at();
}

uint64_t BatchQueue::ReturnPacked(Batches batch) {
  const WriteGuard lock(mutex_);
  packing_ = false;
  Count(batch.front());
  packed_.splice(packed_.end(), batch);
  changed_.NotifyAll();
  return DropAboveLimits();
}

uint64_t BatchQueue::ReturnUnsent(Batches parts, Clock::time_point retry_at) {
  const WriteGuard lock(mutex_);
  times_.Failed(flushing_ ? std::min(retry_at, Clock::now() + kLongestFlushPause) : retry_at);
  if (parts.empty()) return 0;
  const bool older = spooling_ || HasSpooled();
  for (Batch& part : parts) {
    part.older = older;
    Count(part);
  }
  packed_.splice(packed_.begin(), parts);
  changed_.NotifyAll();
  return DropAboveLimits();
}

Batches BatchQueue::TakeToSpool(Clock::time_point from, Clock::time_point until) {
  const WriteGuard lock(mutex_);
  while (!spooling_ended_) {
    const Clock::time_point now = Clock::now();
    if (now >= until) break;
    // A batch that is being packed may be the oldest.
    if (now >= from && !packing_ && IsAbove(kMarkDivisor)) {
      const auto packed = FirstToSpool();
      const bool is_packed = packed != packed_.end();
      if (is_packed || !raw_.empty()) {
        spooling_ = true;
        return is_packed ? Pop(&packed_, packed) : Pop(&raw_, raw_.begin());
      }
    }
    changed_.WaitUntil(mutex_, now < from ? std::min(from, until) : until);
  }
  return {};
}

uint64_t BatchQueue::ReturnFromSpool(Batches batch) {
  const WriteGuard lock(mutex_);
  spooling_ = false;
  changed_.NotifyAll();
  if (batch.empty()) return 0;
  Count(batch.front());
  if (batch.front().packed) {
    packed_.splice(FirstToSpool(), batch);
  } else {
    raw_.splice(raw_.begin(), batch);
  }
  return DropAboveLimits();
}

void BatchQueue::Sent(uint64_t points) {
  const WriteGuard lock(mutex_);
  if (!flushing_) times_.Sent(Clock::now(), WallClock::now(), points);
}

void BatchQueue::StopSpooling() {
  const WriteGuard lock(mutex_);
  spooling_ended_ = true;
  changed_.NotifyAll();
}

Batches BatchQueue::TakeRest() {
  const WriteGuard lock(mutex_);
  CloseOpen();
  if (!packed_.empty()) return Pop(&packed_, packed_.begin());
  return raw_.empty() ? Batches() : Pop(&raw_, raw_.begin());
}

void BatchQueue::Flush() {
  {
    const WriteGuard lock(mutex_);
    flushing_ = true;
  }
  SendNow();
}

void BatchQueue::End() {
  {
    const WriteGuard lock(mutex_);
    ended_ = true;
  }
  Flush();
}

void BatchQueue::SendNow() {
  const WriteGuard lock(mutex_);
  times_.SendNow(Clock::now());
  changed_.NotifyAll();
}

uint64_t BatchQueue::Clear() {
  const WriteGuard lock(mutex_);
  const uint64_t points = size_.points + OpenPoints();
  packed_.clear();
  raw_.clear();
  open_.clear();
  size_ = QueueSize();
  return points;
}

QueueSize BatchQueue::Size() const {
  const WriteGuard lock(mutex_);
  const uint64_t open_bytes = open_.empty() ? 0 : open_.front().body.size();
  return {size_.points + OpenPoints(), size_.bytes + open_bytes};
}

bool BatchQueue::IsIdle() const {
  const WriteGuard lock(mutex_);
  return size_.points + OpenPoints() + taken_points_ == 0;
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

Batches BatchQueue::Pop(Batches* batches, Batches::iterator at) {
  Batches batch;
  batch.splice(batch.end(), *batches, at);
  size_.points -= batch.front().points;
  size_.bytes -= batch.front().body.capacity();
  return batch;
}

Batches BatchQueue::PopToSend(Batches* batches) {
  taken_points_ = batches->front().points;
  return Pop(batches, batches->begin());
}

uint64_t BatchQueue::DropAboveLimits() {
  uint64_t dropped = 0;
  while (size_.points > limits_.queue_points || size_.bytes > limits_.queue_bytes) {
    Batches* const oldest = packed_.empty() ? &raw_ : &packed_;
    dropped += Pop(oldest, oldest->begin()).front().points;
  }
  return dropped;
}

BatchQueue::Next BatchQueue::WhatIsNext() const {
  if (!packed_.empty() && packed_.front().older) return Next::kPacked;
  if (HasSpooled()) return Next::kSpooled;
  if (spooling_) return Next::kBeingSpooled;
  return packed_.empty() ? Next::kNothing : Next::kPacked;
}

// The parts of one at most are older than what is spooled, and are the first.
Batches::iterator BatchQueue::FirstToSpool() {
  return std::find_if(packed_.begin(), packed_.end(), [](const Batch& b) { return !b.older; });
}

bool BatchQueue::IsAbove(uint64_t parts) const {
  return size_.points > limits_.queue_points / parts || size_.bytes > limits_.queue_bytes / parts;
}

// At the time of a spread once. What comes while other batches are sent is gathered as without one.
bool BatchQueue::IsOpenDue(Clock::time_point now) {
  const bool opens = times_.Opens(now);
  if (open_.empty()) return false;
  return flushing_ || opens || (times_.is_open() && now >= open_since_ + limits_.interval);
}

// If it is not too early.
bool BatchQueue::IsSendable(Next next) const {
  if (next == Next::kSpooled) return true;
  return next == Next::kPacked && (flushing_ || times_.is_open() || IsAbove(kSpreadDivisor));
}

BatchQueue::Clock::time_point BatchQueue::NextEvent(Clock::time_point until, Next next) const {
  Clock::time_point event = until;
  if (IsSendable(next)) event = std::min(event, times_.send_at());
  if (!times_.is_open()) return std::min(event, times_.opens_at());
  return open_.empty() ? event : std::min(event, open_since_ + limits_.interval);
}

}  // namespace tidegate::agent

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <string_view>

namespace tidegate::agent {

// Lines that are sent, retried or dropped together.
struct Batch {
  std::string body;
  uint64_t points = 0;
  bool packed = false;  // compressed: ready to be sent
};

struct BatchLimits {
  uint64_t batch_points = 10000;             // a batch is closed when it has these,
  size_t batch_bytes = size_t{4} << 20;      // or so many bytes of lines,
  std::chrono::milliseconds interval{1000};  // or is this old
  uint64_t queue_points = 1000000;           // what waits, in points
  size_t queue_bytes = size_t{64} << 20;     // and in bytes, compressed where that is done
};

// In a queue, or one on its way: what is moved from list to list needs no memory.
using Batches = std::list<Batch>;

// What the queue holds, without the batch that a thread has taken out.
struct QueueSize {
  uint64_t points = 0;
  uint64_t bytes = 0;
};

// Gathers lines into batches and keeps them, oldest first, until a thread takes them. Above a limit
// of the queue the oldest batch goes, and its points are counted.
//
// Threads: one calls Take and both Return functions, any the others. None but Take waits; the lock
// is held for moving batches, never for compressing or sending one. What is open comes on top of
// the limits, and what Take has handed out: a tenth of them each at most.
class BatchQueue {
 public:
  using Clock = std::chrono::steady_clock;

  explicit BatchQueue(const BatchLimits& limits);

  // Those asked for, with a batch at most a tenth of the queue. From any thread.
  const BatchLimits& limits() const { return limits_; }

  // Adds whole lines, which hold `points` and come into one batch. Returns how many points had to
  // go for them. Without memory for them, throws and adds nothing.
  uint64_t Append(std::string_view lines, uint64_t points);

  // The next batch, alone in its list: the oldest unpacked one while it is too early to send, else
  // the oldest packed one. Waits for a batch until `until`, after Flush only for the time to send;
  // returns an empty list if there is none.
  Batches Take(Clock::time_point until);

  // Puts back a batch that has been packed. Returns how many points had to go for it.
  uint64_t ReturnPacked(Batches batch);

  // Puts back a batch that could not be sent; it is too early to send until `retry_at`, behind
  // Flush for half a second at most. Returns how many points had to go for it.
  uint64_t ReturnUnsent(Batches batch, Clock::time_point retry_at);

  // From now on the open batch does not wait to become full or old. It is no more too early to
  // send.
  void Flush();

  // Drops everything. Returns how many points that were.
  uint64_t Clear();

  QueueSize Size() const;

 private:
  // All of these with mutex_ held.
  void CloseOpen();
  uint64_t OpenPoints() const { return open_.empty() ? 0 : open_.front().points; }
  void Count(const Batch& batch);
  Batches Pop(Batches* batches);
  uint64_t DropAboveLimits();
  Clock::time_point NextEvent(Clock::time_point until) const;

  const BatchLimits limits_;

  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  Batches packed_;                // older than all of raw_
  Batches raw_;                   // older than open_
  Batches open_;                  // one at most, not counted in size_
  Clock::time_point open_since_;  // the first line in open_ came then
  QueueSize size_;                // of packed_ and raw_
  Clock::time_point send_at_;     // it is too early to send before this
  bool flushing_ = false;
};

}  // namespace tidegate::agent

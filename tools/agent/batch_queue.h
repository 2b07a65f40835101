#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "agent/batch.h"
#include "agent/send_times.h"
#include "util/condition.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

struct BatchLimits {
  uint64_t batch_points = 10000;             // a batch is closed when it has these,
  size_t batch_bytes = size_t{4} << 20;      // or so many bytes of lines,
  std::chrono::milliseconds interval{1000};  // or is this old
  uint64_t queue_points = 1000000;           // what waits, in points
  size_t queue_bytes = size_t{64} << 20;     // and in bytes, compressed where that is done
  SendRules send;                            // with a spread, a batch is closed when it is sent
};

// The content of the queue, without the batch that a thread has taken out.
struct QueueSize {
  uint64_t points = 0;
  uint64_t bytes = 0;
};

// Gathers lines into batches and keeps them, oldest first, until a thread takes them. Above a limit
// of the queue the oldest batch goes, and its points are counted. A spool, if there is one, takes
// the oldest batches of a queue that is more than half full. Those are older than the rest of the
// queue, and are sent first. Only one batch can be older still: one whose sending failed while the
// first was being spooled. It stays here, with all its parts.
//
// Threads: one sends, with Take, ReturnPacked and ReturnUnsent; one spools, with TakeToSpool and
// ReturnFromSpool; any the others. None but the two Take functions wait; the lock is held for
// moving batches, never for compressing, sending or writing one. The limits do not count the open
// batch, nor those that the Take functions have handed out: a tenth of the limits each at most.
class BatchQueue {
 public:
  using Clock = std::chrono::steady_clock;

  // `has_spooled` says whether a batch waits in the spool; it is called with the lock held. Nothing
  // is sent before the first ReturnFromSpool, as the spool may have what an earlier agent left.
  explicit BatchQueue(const BatchLimits& limits, std::function<bool()> has_spooled = {});

  // Those asked for, with a batch at most a tenth of the queue. From any thread.
  const BatchLimits& limits() const { return limits_; }

  // Adds whole lines, which hold `points` and come into one batch. Returns how many points had to
  // go for them. Without memory for them, throws and adds nothing.
  uint64_t Append(std::string_view lines, uint64_t points);

  // The next batch, alone in its list: the oldest unpacked one while it is too early to send, else
  // the oldest packed one. It is too early before the time of a spread, unless the queue is more
  // than a quarter full. Waits for a batch until `until`, after End only for the time to send.
  // Returns an empty list if there is none, or if it is time to send one of the spool.
  Batches Take(Clock::time_point until);

  // Whether it is time to send a batch of the spool.
  bool IsSpooledDue() const;

  // Puts back a batch that has been packed. Returns how many points had to go for it.
  uint64_t ReturnPacked(Batches batch);

  // Puts back a batch that could not be sent, maybe in parts; it is too early to send until
  // `retry_at`, after Flush for half a second at most. An empty list is for a batch that stays in
  // the spool. Returns how many points had to go for it.
  uint64_t ReturnUnsent(Batches parts, Clock::time_point retry_at);

  // The oldest batch, packed or not, for the spool: once the queue is more than half full, but not
  // before `from`. Returns an empty list at `until`, or after StopSpooling.
  Batches TakeToSpool(Clock::time_point from, Clock::time_point until);

  // Ends what TakeToSpool began: puts back a batch that the spool did not take, and takes note of
  // its content. Returns how many points had to go for it.
  uint64_t ReturnFromSpool(Batches batch);

  // The destination has dealt with `points` of a batch that was taken out here or of the spool: it
  // can be too early now for the next.
  void Sent(uint64_t points);

  void StopSpooling();

  // The oldest batch of all that is left, open or not; an empty list if there is none.
  Batches TakeRest();

  // From now on the open batch does not wait to become full or old, nor anything for its time to be
  // sent. It is no more too early to send.
  void Flush();

  // As Flush, and nothing more comes: once all is sent, nobody waits for it any longer.
  void End();

  // It is no more too early to send now.
  void SendNow();

  // Drops everything. Returns how many points that were.
  uint64_t Clear();

  QueueSize Size() const;

  // Whether no points wait, those included that the one that sends has: it has dealt with them when
  // it calls Take again.
  bool IsIdle() const;

 private:
  // Where the oldest batch is that can be sent.
  enum class Next { kNothing, kPacked, kSpooled, kBeingSpooled };

  void CloseOpen() METRICS_REQUIRES(mutex_);
  uint64_t OpenPoints() const METRICS_REQUIRES(mutex_) {
    return open_.empty() ? 0 : open_.front().points;
  }
  void Count(const Batch& batch) METRICS_REQUIRES(mutex_);
  Batches Pop(Batches* batches, Batches::iterator at) METRICS_REQUIRES(mutex_);
  Batches PopToSend(Batches* batches) METRICS_REQUIRES(mutex_);
  uint64_t DropAboveLimits() METRICS_REQUIRES(mutex_);
  Next WhatIsNext() const METRICS_REQUIRES(mutex_);
  Batches::iterator FirstToSpool() METRICS_REQUIRES(mutex_);
  bool HasSpooled() const { return has_spooled_ && has_spooled_(); }
  // Whether the queue is fuller than one part of `parts`.
  bool IsAbove(uint64_t parts) const METRICS_REQUIRES(mutex_);
  bool IsOpenDue(Clock::time_point now) METRICS_REQUIRES(mutex_);
  bool IsSendable(Next next) const METRICS_REQUIRES(mutex_);
  Clock::time_point NextEvent(Clock::time_point until, Next next) const METRICS_REQUIRES(mutex_);

  const BatchLimits limits_;
  const std::function<bool()> has_spooled_;

  mutable METRICS::Mutex mutex_;
  METRICS::Condition changed_;
  Batches packed_ METRICS_GUARDED_BY(mutex_);                // older than all of raw_
  Batches raw_ METRICS_GUARDED_BY(mutex_);                   // older than open_
  Batches open_ METRICS_GUARDED_BY(mutex_);                  // one at most, not counted in size_
  Clock::time_point open_since_ METRICS_GUARDED_BY(mutex_);  // the first line in open_ came then
  QueueSize size_ METRICS_GUARDED_BY(mutex_);                // of packed_ and raw_
  SendTimes times_ METRICS_GUARDED_BY(mutex_);
  bool flushing_ METRICS_GUARDED_BY(mutex_) = false;
  bool ended_ METRICS_GUARDED_BY(mutex_) = false;
  uint64_t taken_points_ METRICS_GUARDED_BY(mutex_) = 0;  // that the one that sends has
  bool packing_ METRICS_GUARDED_BY(mutex_) = false;       // in a batch that it packs
  bool spooling_ METRICS_GUARDED_BY(mutex_);              // the one that spools has a batch
  bool spooling_ended_ METRICS_GUARDED_BY(mutex_) = false;
};

}  // namespace tidegate::agent

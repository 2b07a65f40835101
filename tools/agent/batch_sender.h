#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "agent/batch.h"
#include "agent/batch_queue.h"
#include "agent/destination_numbers.h"
#include "agent/destination_state.h"
#include "agent/destination_status.h"
#include "agent/forward_options.h"
#include "agent/health.h"
#include "agent/http_poster.h"
#include "agent/point_format.h"
#include "agent/report.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// Sends batches to a target and settles each part of them by the reply to it.
//
// What cannot be delivered now is to be tried again after a pause: no connection, no reply, 429,
// 5xx, and 401 and 404 for setup_time. The pauses grow and are cut at random. What the server
// refuses otherwise, redirects included, is split if the format can do that, and its parts are sent
// one after the other; a part that is refused as well and cannot be split is dropped. So are the
// points of which the server says that it has dropped them. Outages and refusals are reported, at
// most once per log_interval each. If a reply gets lost, its batch arrives twice.
//
// Threads: one sends; Redirect, Drain, Cancel and CopyTo from any. Borrows all that it is given.
class BatchSender {
 public:
  using Clock = BatchQueue::Clock;

  // A batch on its way.
  struct Delivery {
    Batches parts;  // in order; all of it at first
    int splits = 0;
  };

  // `queue` is told of what was sent, and to wait no longer after Redirect.
  BatchSender(const ForwardOptions& options, const PointFormat* format, BatchQueue* queue,
              DestinationNumbers* numbers, Health* health, Report report);

  // Sends the parts and takes out those that are done with. If one has to be tried again, returns
  // the time for it; that part and those after it stay. If it throws, the parts that are still
  // there are not counted.
  std::optional<Clock::time_point> Deliver(Delivery* delivery);

  // Reports that batches wait, for the reason of the last Deliver. Once they are in the queue
  // again.
  void ReportOutage();

  // Reports what was refused since the last line about that.
  void ReportRefused();

  // Follows the last Redirect. To be called before a batch is waited for.
  void TakeTarget();

  // From now on sends to `target`: at once, or after the request that is under way.
  void Redirect(const ForwardTarget& target);

  // From now on makes no long pauses, and no request lasts beyond `end`.
  void Drain(Clock::time_point end) { drain_end_ = end; }

  bool is_draining() const { return drain_end() != Clock::time_point::max(); }
  // The far future before Drain.
  Clock::time_point drain_end() const { return drain_end_; }

  // Ends the request that is under way, if any.
  void Cancel();

  // Fills in what it knows of the destination.
  void CopyTo(DestinationStatus* status) const { state_.CopyTo(status); }

 private:
  std::unique_ptr<HttpPoster> MakePoster(const ForwardTarget& target) const;
  HttpReply Post(const Batch& batch);
  std::chrono::milliseconds Timeout() const;
  bool IsWorthRetrying(Verdict::Kind kind);
  std::chrono::milliseconds NextPause(std::chrono::milliseconds wanted);
  bool Split(Delivery* delivery);
  void Settle(Batches* parts, const Verdict& verdict, const HttpReply& reply);
  void ReportRefusal(const std::string& words);
  bool IsDue(Clock::time_point* next_line) const;

  const ForwardOptions& options_;
  const PointFormat* const format_;
  BatchQueue* const queue_;
  DestinationNumbers* const numbers_;
  Health* const health_;
  const Report report_;
  std::atomic<Clock::time_point> drain_end_{Clock::time_point::max()};

  METRICS::Mutex target_mutex_;
  std::optional<ForwardTarget> next_target_ METRICS_GUARDED_BY(target_mutex_);
  // Changed by the thread with target_mutex_ held; the thread alone uses it without.
  std::unique_ptr<HttpPoster> poster_;

  DestinationState state_;

  // Of the thread.
  ForwardTarget target_;
  std::string failure_;                            // the reason for the last pause
  int failures_ = 0;                               // since the last delivery
  std::optional<Clock::time_point> denied_since_;  // all answers have been 401 or 404 since then
  bool outage_reported_ = false;
  Clock::time_point next_outage_line_;
  Clock::time_point next_refusal_line_;
  uint64_t refused_points_ = 0;  // since the last line about them
  std::minstd_rand random_;
};

}  // namespace tidegate::agent

#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "agent/batch_queue.h"
#include "agent/destination_numbers.h"
#include "agent/destination_state.h"
#include "agent/destination_status.h"
#include "agent/forward_options.h"
#include "agent/health.h"
#include "agent/http_poster.h"
#include "agent/packet_sink.h"
#include "agent/point_format.h"
#include "agent/point_output.h"
#include "agent/report.h"
#include "agent/spool.h"
#include "agent/spool_feeder.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// Sends points to a database over HTTP, in the form that a PointFormat makes.
//
// Some batches cannot be delivered now: no connection, no reply, 429, 5xx, and 401 and 404 for
// setup_time. They wait in a bounded queue, and in the spool if there is one. They are tried again,
// oldest first, with pauses that grow and are cut at random. A batch that the server refuses
// otherwise, redirects included, is split if the format can do that, and its parts are sent one
// after the other; a part that is refused as well and cannot be split is dropped. So are the points
// of which the server says that it has dropped them. Both are counted and reported, at
// most once per log_interval each. If a reply gets lost, its batch arrives twice.
//
// Threads: Handle and Tick on the decoder's; a thread of its own packs and sends, one more feeds
// the spool; the rest from the owner's. Each of them reports. Handle and Tick never wait. Borrows
// `numbers` and `health`; it forwards all of the latter.
class Forwarder : public PacketSink {
 public:
  Forwarder(const ForwardOptions& options, std::unique_ptr<const PointFormat> format,
            DestinationNumbers* numbers, Health* health, Report report);
  ~Forwarder() override;  // stops without sending the points that wait

  // Starts the thread, once.
  void Start();

  // Sends the points that wait, for at most `drain` from the first call of one of these; Stop
  // returns sooner when all are sent. The rest goes to the spool, however long that takes, or is
  // dropped, counted and reported. BeginStop waits for nothing. Both do nothing without Start.
  // REQUIRES: no Handle or Tick from now on.
  void BeginStop(std::chrono::milliseconds drain);
  void Stop(std::chrono::milliseconds drain);

  // From now on sends to `target`, also the points that wait, and at once. From any thread.
  void Redirect(const ForwardTarget& target);

  // From any thread.
  DestinationStatus Status() const;

  // From now on no point waits for others to be sent with, nor is held beyond the next Tick. From
  // any thread.
  void Flush();

  // Whether no point is held, waits, or is under way. From any thread.
  bool IsIdle() const;

  void Handle(const Packet& packet, const ClientId& client) override;

  // Hands on held points that are due. To be called about once a second.
  void Tick() { HandOut(flushing_); }

 private:
  using Clock = BatchQueue::Clock;

  // A batch on its way.
  struct Delivery {
    Batches parts;  // in order; all of it at first
    int splits = 0;
  };

  std::unique_ptr<HttpPoster> MakePoster(const ForwardTarget& target) const;
  void Write(const Packet& packet, const ClientId& client);
  void HandOut(bool all);
  void Run();
  // Follows the last Redirect.
  void TakeTarget();
  void DropWhatIsLeft();
  void ReportRefused();
  void SendHealthIfDue();
  void DeliverSpooled();
  void Pack(Batches* batch);
  void DeliverQueued(Batches* batch);
  // Sends the parts and takes out those that are done with. False if the first of the rest is to be
  // tried again at retry_at_.
  bool Deliver(Delivery* delivery);
  bool Split(Delivery* delivery);
  HttpReply Post(const Batch& batch);
  void Settle(Batches* parts, const Verdict& verdict, const HttpReply& reply);
  void KeepSpooledParts();
  void ReportOutage();
  bool IsWorthRetrying(Verdict::Kind kind);
  void ReportRefusal(const std::string& words);
  bool IsDue(Clock::time_point* next_line) const;
  std::chrono::milliseconds NextPause(std::chrono::milliseconds wanted);
  std::chrono::milliseconds Timeout() const;
  void CountFull(uint64_t points);
  void CountLost(const Batches& batches);
  void PublishHeld();
  void PublishSize();

  const std::unique_ptr<const PointFormat> format_;
  const ForwardOptions options_;
  DestinationNumbers* const numbers_;
  Health* const health_;
  const Report report_;
  Spool spool_;
  BatchQueue queue_;
  METRICS::Mutex publishing_;          // one thread at a time tells the size of queue_
  std::optional<SpoolFeeder> feeder_;  // if there is a spool

  METRICS::Mutex target_mutex_;
  std::optional<ForwardTarget> next_target_ METRICS_GUARDED_BY(target_mutex_);
  // Changed by the thread with target_mutex_ held; the thread alone uses it without.
  std::unique_ptr<HttpPoster> poster_;

  DestinationState state_;

  std::thread thread_;
  std::promise<void> end_;
  const std::future<void> ended_{end_.get_future()};
  std::atomic<uint64_t> sending_{0};  // points that are under way
  std::atomic<bool> draining_{false};
  Clock::time_point drain_end_;  // written before draining_, read after it

  std::atomic<bool> flushing_{false};

  // Of Handle and Tick.
  const std::unique_ptr<PointWriter> writer_;
  PointOutput output_;
  uint64_t left_ = 0;  // points of the packet that the writer has not got yet

  // Of the thread.
  Delivery spooled_;  // of the spool's oldest batch, once that was split
  std::atomic<bool> has_spooled_parts_{false};
  Clock::time_point retry_at_;
  std::string failure_;  // the reason for it
  ForwardTarget target_;
  Clock::time_point next_health_;
  int failures_ = 0;  // since the last delivery
  bool outage_reported_ = false;
  Clock::time_point next_outage_line_;
  Clock::time_point next_refusal_line_;
  uint64_t refused_points_ = 0;                    // since the last line about them
  std::optional<Clock::time_point> denied_since_;  // all answers have been 401 or 404 since then
  std::minstd_rand random_;
};

}  // namespace tidegate::agent

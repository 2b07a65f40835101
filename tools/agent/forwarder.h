#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "agent/batch_queue.h"
#include "agent/batch_sender.h"
#include "agent/destination_numbers.h"
#include "agent/destination_status.h"
#include "agent/forward_options.h"
#include "agent/health.h"
#include "agent/packet_sink.h"
#include "agent/point_format.h"
#include "agent/point_output.h"
#include "agent/report.h"
#include "agent/spool.h"
#include "agent/spool_feeder.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// Sends points to a database over HTTP, in the form that a PointFormat makes: gathers them into
// batches, which wait in a bounded queue, and in the spool if there is one, until a BatchSender has
// delivered them, oldest first. The agent's own numbers go with them.
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

  // From now on sends to `target`, also the points that wait: at once, or after the request that is
  // under way. From any thread.
  void Redirect(const ForwardTarget& target) { sender_.Redirect(target); }

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

  void Write(const Packet& packet, const ClientId& client);
  void HandOut(bool all);
  void Run();
  void DropWhatIsLeft();
  void SendHealthIfDue();
  void DeliverSpooled();
  void Pack(Batches* batch);
  void DeliverQueued(Batches* batch);
  void KeepSpooledParts();
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
  BatchSender sender_;

  std::thread thread_;
  std::promise<void> end_;
  const std::future<void> ended_{end_.get_future()};

  std::atomic<bool> flushing_{false};

  // Of Handle and Tick.
  const std::unique_ptr<PointWriter> writer_;
  PointOutput output_;
  uint64_t left_ = 0;  // points of the packet that the writer has not got yet

  // Of the thread.
  BatchSender::Delivery spooled_;  // of the spool's oldest batch, once that was split
  std::atomic<bool> has_spooled_parts_{false};
  Clock::time_point next_health_;
};

}  // namespace tidegate::agent

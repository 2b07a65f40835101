#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include "agent/health.h"
#include "agent/packet_sink.h"
#include "agent/seqpacket_server.h"
#include "util/condition.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// Messages on their way from the thread that reads sockets, which never waits for the decoder.
// Every sender has its share: they take turns to have a message decoded. Beyond `max_bytes` the
// sender that fills most of the queue loses its oldest message, which is counted. A sender is a
// process with all its connections; where the kernel names none, a connection.
//
// Threads: Push from the reader, the others from the decoder; IsIdle and Close from any. No lock is
// held for longer than it takes to move a few messages. Borrows `health`.
class PacketQueue {
 public:
  using Clock = std::chrono::steady_clock;
  using Message = SeqpacketServer::Message;

  enum class Result { kItem, kTimeout, kClosed };

  PacketQueue(size_t max_bytes, Health* health) : max_bytes_(max_bytes), health_(health) {}

  // Counts the message as dropped if there is no memory for it.
  void Push(Message message) noexcept;

  // Waits for a message. A closed queue still hands out what is in it, until its deadline.
  Result Pop(Message* message, std::chrono::milliseconds timeout);

  // Whether no message waits, and the decoder, which waits in Pop, has none.
  bool IsIdle() const;

  // Whether messages of that sender wait.
  bool Holds(const ProcessId& sender) const;

  // Messages that are not taken out by `deadline` are dropped, and counted. REQUIRES: no Push from
  // now on.
  void Close(Clock::time_point deadline);

  // A line about the messages that were dropped from a full queue since the last line, and about
  // the sender that lost most. Empty if nothing was dropped, or if the last line is younger than a
  // minute.
  std::string ReportDrops(Clock::time_point now);

 private:
  struct Sender {
    ProcessId key;
    std::list<Message> messages;
    size_t bytes = 0;
  };
  using Senders = std::list<Sender>;

  struct Dropped {
    uint64_t packets = 0;
    uint64_t bytes = 0;
  };

  Senders::iterator SenderOf(const ProcessId& key) METRICS_REQUIRES(mutex_);
  void Resize(Sender* sender, size_t bytes) METRICS_REQUIRES(mutex_);
  void TakeOldest(Senders::iterator sender, std::list<Message>* to) METRICS_REQUIRES(mutex_);
  void DropFromLargest(std::list<Message>* to) METRICS_REQUIRES(mutex_);
  void CountDropped(const Message& message) METRICS_REQUIRES(mutex_);
  void DropAll(Senders* to) METRICS_REQUIRES(mutex_);
  void UpdateHealth() METRICS_REQUIRES(mutex_);

  const size_t max_bytes_;
  Health* const health_;

  mutable METRICS::Mutex mutex_;
  METRICS::Condition ready_;
  Senders turns_ METRICS_GUARDED_BY(mutex_);  // those with messages, the next one in front
  std::unordered_map<ProcessId, Senders::iterator> senders_ METRICS_GUARDED_BY(mutex_);  // by key
  // Bytes and key of each.
  std::set<std::pair<size_t, ProcessId>> sizes_ METRICS_GUARDED_BY(mutex_);
  size_t bytes_ METRICS_GUARDED_BY(mutex_) = 0;  // of all
  size_t packets_ METRICS_GUARDED_BY(mutex_) = 0;
  bool decoding_ METRICS_GUARDED_BY(mutex_) = false;  // the decoder has a message
  bool closed_ METRICS_GUARDED_BY(mutex_) = false;
  Clock::time_point deadline_ METRICS_GUARDED_BY(mutex_);  // once closed

  Dropped dropped_ METRICS_GUARDED_BY(mutex_);  // since the last line
  // The same by process, the first thousand.
  std::unordered_map<pid_t, Dropped> droppers_ METRICS_GUARDED_BY(mutex_);
  Clock::time_point next_line_ METRICS_GUARDED_BY(mutex_);
};

}  // namespace tidegate::agent

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include "agent/health.h"
#include "agent/packet_sink.h"
#include "agent/seqpacket_server.h"

namespace tidegate::agent {

// Messages on their way from the thread that reads sockets, which never waits for the decoder.
// Every sender has its share: they take turns to have a message decoded, and beyond `max_bytes` the
// oldest message of the one that fills most of the queue is dropped, and counted. A sender is a
// process with all its connections; where the kernel names none, a connection.
//
// Threads: Push from the reader, the others from the decoder; Close from any. No lock is held for
// longer than it takes to move a few messages. Borrows `health`.
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

  // Whether messages of that sender wait.
  bool Holds(const ProcessId& sender) const;

  // What is not taken out by `deadline` is dropped, and counted. REQUIRES: no Push from now on.
  void Close(Clock::time_point deadline);

  // What was dropped from a full queue since the last line, and the sender who lost most: one line,
  // or empty if nothing was or if the last one is younger than a minute.
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

  // All of these with mutex_ held.
  Senders::iterator SenderOf(const ProcessId& key);
  void Resize(Sender* sender, size_t bytes);
  void TakeOldest(Senders::iterator sender, std::list<Message>* to);
  void DropFromLargest(std::list<Message>* to);
  void CountDropped(const Message& message);
  void DropAll(Senders* to);
  void UpdateHealth();

  const size_t max_bytes_;
  Health* const health_;

  mutable std::mutex mutex_;  // of all below
  std::condition_variable ready_;
  Senders turns_;  // those with messages, the next one in front
  std::unordered_map<ProcessId, Senders::iterator> senders_;  // by key
  std::set<std::pair<size_t, ProcessId>> sizes_;              // bytes and key of each
  size_t bytes_ = 0;                                          // of all
  size_t packets_ = 0;
  bool closed_ = false;
  Clock::time_point deadline_;  // once closed

  Dropped dropped_;                              // since the last line,
  std::unordered_map<pid_t, Dropped> droppers_;  // and by process, the first thousand
  Clock::time_point next_line_;
};

}  // namespace tidegate::agent

#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "agent/bounded_queue.h"
#include "agent/health.h"
#include "agent/log.h"
#include "agent/packet_sink.h"
#include "agent/seqpacket_server.h"

namespace tidegate::agent {

// Messages on their way from the thread that reads sockets, which never waits for the decoder: the
// oldest are dropped, and counted, beyond `max_bytes`.
//
// Threads: Push from the reader, Pop from the decoder, Close from any. Borrows `health`.
class PacketQueue {
 public:
  using Result = BoundedQueue<SeqpacketServer::Message>::Result;

  PacketQueue(size_t max_bytes, Health* health) : queue_(max_bytes), health_(health) {}

  void Push(SeqpacketServer::Message message);
  Result Pop(SeqpacketServer::Message* message, std::chrono::milliseconds timeout);
  void Close() { queue_.Close(); }

 private:
  void UpdateHealth();

  BoundedQueue<SeqpacketServer::Message> queue_;
  Health* const health_;
};

// Decodes messages and hands the packets to all sinks. A refused message is counted, gets a line of
// the log and changes nothing else.
//
// Threads: Run on one thread, which is that of the sinks and of `on_second`. Borrows everything.
class Decoder {
 public:
  // `on_second` is called about once a second, also while nothing comes.
  Decoder(PacketQueue* queue, std::vector<PacketSink*> sinks, std::function<void()> on_second,
          Health* health, Log* log);

  // Until the queue is closed and empty.
  void Run();

 private:
  void Decode(const SeqpacketServer::Message& message);
  void Refuse(DecodeFailure failure, const std::string& text);

  PacketQueue* const queue_;
  const std::vector<PacketSink*> sinks_;
  const std::function<void()> on_second_;
  Health* const health_;
  Log* const log_;
  PacketReader reader_;
};

}  // namespace tidegate::agent

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "agent/health.h"
#include "agent/log.h"
#include "agent/packet_queue.h"
#include "agent/packet_sink.h"
#include "agent/process_slots.h"
#include "agent/rule_stage.h"
#include "agent/seqpacket_server.h"

namespace tidegate::agent {

// Decodes messages and hands the packets to all sinks. A refused message is counted, gets a line of
// the log and changes nothing else. Where memory runs out, a packet is lost, or a sink loses its
// part of the packet: both are counted. The sinks get the client with its slot, if there are slots,
// and what the rules leave of the packet, if there are rules.
//
// Threads: Run on one thread, which is that of the sinks and of `on_second`. Borrows everything.
class Decoder {
 public:
  // `watchers` get each packet as it came, before the rules. `on_second` is called about once a
  // second, also while nothing comes.
  Decoder(PacketQueue* queue, std::vector<PacketSink*> sinks, std::function<void()> on_second,
          Health* health, Log* log, ProcessSlots* slots = nullptr, RuleStage* rules = nullptr,
          std::vector<PacketSink*> watchers = {});

  // Until the queue is closed and empty.
  void Run();

 private:
  void Decode(const SeqpacketServer::Message& message);
  Packet* Read(const SeqpacketServer::Message& message);
  void HandOn(const std::vector<PacketSink*>& sinks, const Packet& packet, const ClientId& client);
  void HandOnByRules(Packet* packet, const ClientId& client);
  ClientId Slotted(const Packet& packet, ClientId client);
  void Refuse(DecodeFailure failure, const std::string& text);

  PacketQueue* const queue_;
  const std::vector<PacketSink*> sinks_;
  const std::function<void()> on_second_;
  Health* const health_;
  Log* const log_;
  ProcessSlots* const slots_;
  RuleStage* const rules_;
  const std::vector<PacketSink*> watchers_;
  PacketReader reader_;
};

}  // namespace tidegate::agent

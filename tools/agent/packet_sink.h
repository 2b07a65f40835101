#pragma once

#include <sys/types.h>

#include <cstdint>

#include "agent/packet_reader.h"

namespace tidegate::agent {

// Who sent a packet, by the word of the kernel.
struct ClientId {
  pid_t pid = 0;            // of the process that connected; 0 if the kernel does not tell
  uint64_t connection = 0;  // its number, never used twice
};

// Something that takes decoded packets: the printer, the series table, the forwarder.
//
// Threads: Handle is called on the decoder's thread alone, for each client in the order of arrival,
// and never waits for anything outside of the process; a sink that writes has a bounded queue and a
// thread of its own. The packet is borrowed for the call. Where memory runs out, a sink counts what
// it loses, as far as it can tell, throws, and is fit for the next packet.
class PacketSink {
 public:
  PacketSink() = default;
  virtual ~PacketSink() = default;
  PacketSink(const PacketSink&) = delete;
  PacketSink& operator=(const PacketSink&) = delete;

  virtual void Handle(const Packet& packet, const ClientId& client) = 0;
};

}  // namespace tidegate::agent

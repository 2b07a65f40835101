#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <tuple>

#include "agent/packet_reader.h"

namespace tidegate::agent {

// A process with all its connections, by the word of the kernel: one that gets the id of another
// later is not that one. Where the kernel names no process, as across PID namespaces, a connection
// counts as one.
struct ProcessId {
  pid_t pid = 0;        // 0: the kernel does not tell
  uint64_t number = 0;  // when it started, in clock ticks from the boot, or 0 if that is not to be
                        // seen; that of the connection if there is no pid

  bool operator==(const ProcessId& other) const {
    return pid == other.pid && number == other.number;
  }
  bool operator<(const ProcessId& other) const {
    return std::tie(pid, number) < std::tie(other.pid, other.number);
  }
};

// A series of a process, or several that are one since rules have dropped tags or changed names.
struct SourceId {
  ProcessId process;
  uint64_t series = 0;  // tells those apart

  bool operator==(const SourceId& other) const {
    return process == other.process && series == other.series;
  }
};

inline constexpr uint32_t kNoSlot = UINT32_MAX;

// Who sent a packet: the process that connected, also if a child goes on with the connection.
struct ClientId {
  pid_t pid = 0;            // 0 if the kernel does not tell
  uint64_t connection = 0;  // its number, never used twice
  uint64_t start = 0;       // of the process, as in ProcessId
  uint32_t slot = kNoSlot;  // its small number, see ProcessSlots

  // The same for all connections of a process. To be used as a key.
  ProcessId process() const { return {pid, pid > 0 ? start : connection}; }
};

// Whether a process is connected, or has packets that no sink has got yet. On the decoder's thread
// a "no" is final, up to the process's next connection: all sinks have seen all that came of it. So
// a sink that keeps something for each process asks this for each of them, from time to time, or
// when it waits for one. Costs a lock or two; throws nothing. The decoder's thread only.
using IsLive = std::function<bool(const ProcessId&)>;

// Something that takes decoded packets: the printer, the series table, the forwarder.
//
// Threads: Handle is called on the decoder's thread alone, for each client in the order of arrival.
// It never waits for anything outside of the process: a sink that writes has a bounded queue and a
// thread of its own. The packet is borrowed for the call. Where memory runs out, a sink counts the
// points that it loses, as far as it can tell, throws, and can take the next packet.
class PacketSink {
 public:
  PacketSink() = default;
  virtual ~PacketSink() = default;
  PacketSink(const PacketSink&) = delete;
  PacketSink& operator=(const PacketSink&) = delete;

  virtual void Handle(const Packet& packet, const ClientId& client) = 0;
};

}  // namespace tidegate::agent

template <>
struct std::hash<tidegate::agent::ProcessId> {
  size_t operator()(const tidegate::agent::ProcessId& process) const {
    // The odd number spreads the few bits that differ.
    return (static_cast<size_t>(process.pid) + process.number * 31) * 0x9e3779b97f4a7c15U;
  }
};

template <>
struct std::hash<tidegate::agent::SourceId> {
  size_t operator()(const tidegate::agent::SourceId& source) const {
    return std::hash<tidegate::agent::ProcessId>{}(source.process) ^ source.series;
  }
};

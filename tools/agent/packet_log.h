#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "agent/health.h"
#include "agent/packet_sink.h"
#include "agent/point_mapping.h"
#include "agent/stream_writer.h"

namespace tidegate::agent {

enum class PrintFormat { kText, kJson };

// Prints every point, as text or as lines of JSON, to a descriptor. Points whose lines nobody reads
// in time are dropped beyond 16 MiB. Each line repeats the name, so the lines of one packet can
// become very long: those beyond 256 MiB are dropped too. All points whose line was not written
// whole are counted.
//
// Threads: as every sink; Finish from one thread, after the last Handle. Borrows descriptor and
// `health`.
class PacketLog : public PacketSink {
 public:
  // The tag by `label` is the last one of each point. `on_change` is called as StreamWriter does.
  PacketLog(PrintFormat format, ProcessLabel label, int fd, std::function<void(int)> on_change,
            Health* health);

  void Handle(const Packet& packet, const ClientId& client) override;

  // Waits for the reader of the points, for at most `timeout`.
  void Finish(std::chrono::milliseconds timeout) { writer_.Finish(timeout); }

  // The errno of the last write, 0 if that worked.
  int error() const { return writer_.error(); }

 private:
  void Print(const Packet& packet, const ClientId& client);
  void Append(const Packet& packet, const Block& block, const Tag* process);
  void EndLine(uint8_t points);
  void Flush();

  const PrintFormat format_;
  const ProcessLabel label_;
  Health* const health_;
  CountedLines lines_;  // that the writer does not have yet, counted by points
  size_t flushed_ = 0;  // bytes of the packet's lines that the writer has got
  uint64_t left_ = 0;   // points of the packet that are neither with the writer nor counted
  StreamWriter writer_;
};

}  // namespace tidegate::agent

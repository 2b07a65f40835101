#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <unordered_set>

#include "agent/packet_reader.h"
#include "agent/seqpacket_server.h"

namespace tidegate::agent {

enum class OutputFormat { kText, kJson, kNone };

struct PacketTotals {
  uint64_t packets = 0;  // decoded whole
  uint64_t series = 0;   // different pairs of a name and its tags
  uint64_t points = 0;   // series records
  uint64_t errors = 0;   // messages that were refused
};

// Decodes messages, prints their points and counts them. Not thread-safe. Borrows both streams.
// A refused message gets one line on `errors` and changes nothing else. Remembers 8 bytes for each
// different series.
class PacketLog {
 public:
  PacketLog(OutputFormat format, std::FILE* points, std::FILE* errors)
      : format_(format), points_(points), errors_(errors) {}

  // The points are flushed before it returns. False once they cannot be written any more.
  bool Handle(const SeqpacketServer::Message& message);

  // One line on `errors`, under the program's name.
  void Report(const std::string& text);

  const PacketTotals& totals() const { return totals_; }
  // The errno that made Handle answer false, or 0.
  int write_error() const { return write_error_; }

 private:
  void Refuse(const std::string& text);
  void Print(const Packet& packet);
  void PrintPoint(const Packet& packet, const Block& block, const Series& record);
  void Write();
  void Flush();

  const OutputFormat format_;
  std::FILE* const points_;
  std::FILE* const errors_;
  PacketTotals totals_;
  std::unordered_set<uint64_t> seen_series_;
  std::string buffer_;  // lines that are not in the stream yet
  int write_error_ = 0;
};

}  // namespace tidegate::agent

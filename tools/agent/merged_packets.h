#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/health.h"
#include "agent/merged_series.h"
#include "agent/packet_reader.h"
#include "agent/packet_sink.h"

namespace tidegate::agent {

// The name of series, and the form of its blocks in a packet.
struct MergedName {
  enum class Form : uint8_t { kPlain, kMeterRate, kTimerBlocks };

  Form form;
  uint8_t wire_type;
  std::string name;  // of kTimerBlocks the part that the ten names share, without the dot
};

// Tags as the key of a series: equal for equal tags in the same order.
void PutTags(const std::vector<Tag>& tags, std::string* key);
std::vector<Tag> TagsOf(std::string_view key);

// Makes packets of merged points and hands them to sinks, which take them as those of a service;
// hashes and lengths stay 0.
//
// Not thread-safe. Borrows everything. Where memory runs out, the packet in work is lost, and
// counted as Survives does.
class MergedPackets {
 public:
  MergedPackets(std::vector<PacketSink*> sinks, Health* health);

  // The points that follow are of the tenant of `header`, and of this time. To the sinks they come
  // from `client`.
  void Begin(const Packet& header, const ClientId& client, int64_t timestamp);
  // Takes the point of `timestamp` out of the series, without those of the ten blocks of a timer
  // whose bit is in `dropped`. Returns how many percentiles of the others were left out.
  size_t Append(const MergedName& name, std::string_view tags, uint32_t dropped,
                MergedSeries* series);
  // Hands on the rest.
  void End();

 private:
  void StartBlock(const MergedName& name, const MergedLayout& layout);
  void AppendTimer(const MergedName& name, uint32_t dropped, Series record);
  void Count(size_t records, size_t bytes);
  void HandOn();

  const std::vector<PacketSink*> sinks_;
  Health* const health_;
  Packet packet_;
  ClientId client_;
  int64_t timestamp_ = 0;
  size_t bytes_ = 0;                  // of the packet's records, about
  size_t head_bytes_ = 0;             // of its blocks without those
  const MergedName* name_ = nullptr;  // of the block in work, with its layout
  const MergedLayout* layout_ = nullptr;
};

}  // namespace tidegate::agent

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/health.h"
#include "agent/merge_identity.h"
#include "agent/merged_packets.h"
#include "agent/packet_sink.h"
#include "agent/report.h"
#include "agent/series_table.h"

namespace tidegate::agent {

// How rules have changed a block that is to be merged.
struct BlockChange {
  std::optional<GaugeMerge> gauge;  // by which its gauges are merged, if not as all are
  std::vector<uint64_t> sources;    // SourceId::series of each record; empty: 0
  uint32_t dropped = 0;             // of the first of ten blocks of a timer: see MergedEntry
};

// Merges the series that the processes of one identity report under the same name and tags, also
// several of one process. An identity is a tenant, account and project, and with a process label
// one process by that label. The sinks get the merged points as if each identity were one process;
// without a label it is one that the kernel does not name.
//
// Points of one time are held until all live processes of the identity have reported that time or a
// later one, and a second more for the rest of their packets. They are held for `delay` at most,
// counted from the end of the interval or the first point, whichever is later. A point that comes
// after that is late: its numbers that add up are added to the next point of its series.
//
// Threads: all calls on the decoder's, or after that has ended. Memory is bounded: by the number of
// series, and by SeriesTable::kBytesPerSeries for each of that number. So is the work for a packet,
// by kMaxPacketWork and kMaxHandedOn. A point that finds no room is refused and counted. Borrows
// `health` and the sinks.
class MergeStage : public PacketSink {
 public:
  struct Options {
    GaugeMerge gauge = GaugeMerge::kSum;
    std::chrono::seconds delay{5};
    size_t max_series = 1000000;
    std::chrono::seconds ttl{300};             // of series without news where room is needed
    ProcessLabel apart = ProcessLabel::kNone;  // the label that keeps processes apart
  };

  static constexpr size_t kMaxIdentities = 1000;
  static constexpr size_t kMaxApart = 10000;  // if processes are kept apart

  // Bytes of keys and cells that one packet makes the stage go through.
  static constexpr size_t kMaxPacketWork = size_t{64} << 20;

  // Points of due times that one packet, and one second, have handed on.
  static constexpr size_t kMaxHandedOn = 20000;
  static constexpr size_t kMaxHandedOnTick = 200000;

  MergeStage(const Options& options, std::vector<PacketSink*> sinks, Health* health, Report report,
             IsLive is_live, SeriesTable::Clock clock = SeriesTable::Now);

  void Handle(const Packet& packet, const ClientId& client) override {
    HandleChanged(packet, client, {});
  }
  // Likewise. `changes` has those of each block, or nothing if there are none.
  void HandleChanged(const Packet& packet, const ClientId& client,
                     const std::vector<BlockChange>& changes);

  // To be called once a second: hands on the points that are due.
  void Tick();

  // Changes this one of the options. On the decoder's thread.
  void SetTtl(std::chrono::seconds ttl) { options_.ttl = ttl; }

  // Hands on all points that are held. REQUIRES: no Handle from now on.
  void Flush();

 private:
  // The block in work.
  struct Target {
    MergeIdentity* identity;
    MergedMetric* metric;
    MergedLayout* layout;
    int64_t timestamp;
    SourceId source;
    bool before;                // only earlier points, as far as the packet shows
    const BlockChange* change;  // or null
  };

  MergeIdentity* IdentityOf(const Packet& packet, const ClientId& client);
  ClientId SenderOf(const ClientId& client) const;
  void HoldAll(const Packet& packet, const std::vector<BlockChange>& changes, Target target);
  GaugeMerge GaugeOf(const Target& target) const;
  void HoldBlock(const Block& block, MergedName::Form form, Target target);
  void HoldTimer(const Packet& packet, size_t first, Target target);
  // Counts it instead, if it finds no room.
  void Hold(const Target& target, const Series& record, size_t points);
  void Add(const Target& target, const Series& record, KeyedMergedSeries* keyed, size_t points);
  KeyedMergedSeries* SeriesOf(const Target& target, const Series& record);
  // Seconds from now to the end of an interval that has not ended.
  std::chrono::seconds Ahead(int64_t timestamp) const;
  void Refuse(MergeRefusal reason, size_t points);
  bool IsFull() const { return bytes_ > max_bytes_; }
  void HandOn(size_t most);
  void HandOn(MergeIdentity* identity, size_t* most);
  void HandOn(const MergedMetric& metric, KeyedMergedSeries* keyed, int64_t timestamp);
  void SweepIfDue();
  void UpdateHealth();
  void ReportOnce(bool* reported, const std::string& text, const std::string& name);

  Options options_;
  const size_t max_bytes_;
  Health* const health_;
  const Report report_;
  const IsLive is_live_;
  const SeriesTable::Clock clock_;
  MergedPackets packets_;
  std::unordered_map<std::string, std::unique_ptr<MergeIdentity>> identities_;
  uint64_t made_ = 0;  // identities
  size_t bytes_ = 0;
  size_t series_ = 0;
  size_t held_ = 0;  // points
  bool due_ = false;
  SeriesTable::Time now_;
  // An agent before this one may have handed on points of the same series up to this time. So
  // points of these times are late, except the zeros that a series begins with.
  const int64_t start_;
  SteadyTime swept_;
  bool left_out_reported_ = false;
  bool columns_reported_ = false;

  size_t work_ = 0;  // for the packet
  std::string key_;
};

}  // namespace tidegate::agent

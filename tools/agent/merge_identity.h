#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "agent/merged_packets.h"
#include "agent/merged_series.h"
#include "agent/packet_reader.h"
#include "agent/packet_sink.h"
#include "agent/point_mapping.h"

namespace tidegate::agent {

struct MergedEntry {
  explicit MergedEntry(MergedLayout* layout) : series(layout) {}

  MergedSeries series;
  SteadyTime news;
  uint32_t dropped = 0;  // of the ten blocks of a timer: a bit for each that rules drop
};
using KeyedMergedSeries = std::unordered_map<std::string, MergedEntry>::value_type;

// The series of one name.
struct MergedMetric {
  // The layout with the block's columns; made if there is none.
  MergedLayout* LayoutOf(const Block& block, GaugeMerge gauge, size_t* bytes);
  // Lets go of layouts that no series has.
  void SweepLayouts(size_t* bytes);

  uint64_t id;
  MergedName name;
  Kind kind;
  std::unordered_multimap<size_t, std::unique_ptr<MergedLayout>> layouts;  // by HashOfColumns
  std::unordered_map<std::string, MergedEntry> series;                     // by PutTags
};

// Points of one time that are held.
struct MergeTime {
  struct Part {
    MergedMetric* metric = nullptr;
    std::vector<KeyedMergedSeries*> series;
  };

  SteadyTime due;                  // whatever else
  SteadyTime settled;              // once all processes have reported it
  std::map<uint64_t, Part> parts;  // by the metric's id
};

// The processes of one tenant, account and project: how far each has reported, their common series,
// and the points that are held.
//
// Not thread-safe.
class MergeIdentity {
 public:
  // Beyond kMaxTimes, the time that is due next is handed on with the next FindDue. Only a hostile
  // process has more than kMaxTimesMeanwhile before that.
  static constexpr size_t kMaxTimes = 64;
  static constexpr size_t kMaxTimesMeanwhile = 256;

  // `client` is what sinks see as the sender.
  MergeIdentity(const Packet& packet, const ClientId& client);

  // Of packets without points.
  const Packet& header() const { return header_; }
  const ClientId& client() const { return client_; }

  // If it is `full`, a process that is not known yet is not waited for.
  void HasReported(const ProcessId& process, int64_t timestamp, bool full, size_t* bytes);

  MergedMetric* MetricOf(MergedName::Form form, const Block& block, std::string_view name,
                         size_t* bytes);

  // False if there are too many times for one more.
  bool HasRoomFor(int64_t timestamp) const;
  // Holds a point of `keyed` for this time, for at most `delay` from now; or from the end of its
  // interval, if a process that ends has reported before that.
  void Hold(int64_t timestamp, MergedMetric* metric, KeyedMergedSeries* keyed, SteadyTime now,
            std::chrono::nanoseconds ahead, std::chrono::nanoseconds delay);
  // Undoes the last Hold, which was with these.
  void TakeBack(int64_t timestamp, const MergedMetric& metric);
  // More has come for that time.
  void Unsettle(int64_t timestamp, SteadyTime now, std::chrono::nanoseconds ahead);

  // Decides which times are to be handed on: all up to the newest that every live process has
  // reported, or that has waited long enough.
  void FindDue(SteadyTime now, const IsLive& is_live);
  void AllAreDue() { due_until_ = INT64_MAX; }
  // The first of these, or null if all are handed on.
  MergeTime* NextDue(int64_t* timestamp);
  void EndTime(int64_t timestamp) { times_.erase(timestamp); }

  // Whether all processes have gone, a while ago.
  bool IsDeserted() const { return processes_.empty(); }
  // Forgets processes that went a while ago, series without news since `oldest`, and layouts and
  // metrics that nobody uses.
  void Sweep(SteadyTime now, SteadyTime oldest, const IsLive& is_live, size_t* bytes,
             size_t* series);
  bool IsEmpty() const { return processes_.empty() && metrics_.empty(); }
  size_t bytes() const;  // of an empty one
  static size_t BytesOfSeries(const KeyedMergedSeries& keyed);

 private:
  struct Process {
    int64_t newest = INT64_MIN;
    SteadyTime gone;  // the epoch: it is there
  };

  int64_t ReportedByAll(const IsLive& is_live) const;
  void SweepMetric(MergedMetric* metric, SteadyTime oldest, size_t* bytes, size_t* series);

  Packet header_;
  const ClientId client_;
  std::unordered_map<ProcessId, Process> processes_;
  std::unordered_map<std::string, std::unique_ptr<MergedMetric>> metrics_;  // by form, kind, name
  std::map<int64_t, MergeTime> times_;
  int64_t due_until_ = INT64_MIN;
  uint64_t next_id_ = 0;
  std::string key_;
};

}  // namespace tidegate::agent

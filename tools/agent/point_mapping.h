#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/kinds.h"
#include "agent/packet_reader.h"
#include "agent/packet_sink.h"

// The meaning of points for all outputs of the agent: the page of metrics and the forwarded data
// see the same.

namespace tidegate::agent {

// By the type of a block, if its columns have the form that the type demands. If not, the block is
// a row, or without columns a gauge. In all kinds but kRow every record has a value for each
// column, in order.
Kind KindOf(const Block& block);

// The lower bounds of a histogram's buckets, or nothing if the columns are not some bounds that do
// not descend, the sum and the count.
std::optional<std::vector<double>> HistogramBounds(const Block& block);

// One record of a histogram: what happened in the interval.
struct HistogramView {
  const double* counts;  // per bucket, without those of other buckets
  size_t buckets;
  double sum;
  double count;
};
// REQUIRES: the block's kind is kHistogram and `record` is one of its series.
HistogramView HistogramOf(const Series& record);

// Which tag the agent adds to tell the processes apart that send a series.
enum class ProcessLabel { kNone, kSlot, kPid };

// Its key, empty for none; and its value, "overflow" for a process without a slot.
std::string_view KeyOf(ProcessLabel label);
std::string ValueOf(ProcessLabel label, const ClientId& client);

// The owner of a packet beside the tenant, as its header names it; empty if it does not.
inline constexpr std::string_view kTenantKey = "tenant";
inline constexpr std::string_view kHeaderKeys[] = {"account_id", "project_id"};
std::string_view HeaderValue(const Packet& packet, std::string_view key);

// Whether a tag with this key names the owner, if it is one of the first tags of a point.
bool IsOwnerKey(std::string_view key);

// The tags that a record's points carry: `tenant`, `account_id` and `project_id`, as two owners of
// data can have one name, then `slot` or `pid` by `label`, then its own, in the order of their
// keys. An empty value is no tag, but for the tenant. A key can be taken: by one of the tags before
// it, or by the label that the page adds to its kind (`le` of histograms, `quantile` of timer
// rows). Then the tag gets "exported_" before its key. If that is taken too, the tag is left out.
//
// Not thread-safe. Points into the packet until the next Assign; reuse it, then it allocates
// nothing for usual tags.
class PointTags {
 public:
  struct Tag {
    std::string_view key;
    std::string_view value;
  };

  void Assign(const Packet& packet, const ClientId& client, ProcessLabel label, Kind kind,
              const Series& record);

  std::vector<Tag>::const_iterator begin() const { return tags_.begin(); }
  std::vector<Tag>::const_iterator end() const { return tags_.end(); }

 private:
  void Rename(size_t first, std::string_view of_kind);

  std::vector<Tag> tags_;
  std::string process_;
  std::deque<std::string> renamed_;  // keys that tags_ points to
};

}  // namespace tidegate::agent

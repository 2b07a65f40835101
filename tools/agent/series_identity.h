#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "agent/packet_sink.h"
#include "agent/point_mapping.h"
#include "agent/series_key.h"

namespace tidegate::agent {

// The series that a record belongs to: its tags, and its key in the table.
//
// Not thread-safe. Points into the packet until the next Assign; reuse it, then it allocates
// nothing for usual tags.
class SeriesIdentity {
 public:
  void Assign(const Packet& packet, const ClientId& client, ProcessLabel label, Kind kind,
              const Series& record) {
    tags_.Assign(packet, client, label, kind, record);
    key_.Assign(tags_);
    label_bytes_.reset();
  }

  const PointTags& tags() const { return tags_; }
  // As long as every key with these tags.
  size_t key_bytes() const { return key_.text().size(); }
  // Good until the next call.
  const std::string& KeyIn(uint64_t metric) {
    key_.Complete(metric);
    return key_.text();
  }
  // Of the tags alone.
  size_t Hash() const { return std::hash<std::string_view>{}(key_.tags()); }
  // Of the tags as labels on a line of the page.
  size_t LabelBytes();

 private:
  PointTags tags_;
  SeriesKey key_;
  std::optional<size_t> label_bytes_;  // once it was needed
};

}  // namespace tidegate::agent

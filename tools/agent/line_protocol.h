#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/health.h"
#include "agent/line_escape.h"
#include "agent/packet_reader.h"
#include "agent/packet_sink.h"
#include "agent/point_mapping.h"

namespace tidegate::agent {

// Writes points as lines of the InfluxDB line protocol. Every field is a float; NaN and infinities,
// which no receiver takes, are left out, and so is a line without any field. Times are nanoseconds.
// Buckets whose bounds are equal in the digits of their names are one. A histogram whose bucket
// lines would take more than 16 MiB gets no line at all. Nor does a record whose line would be
// longer than kMaxLineBytes, which receivers refuse as well.
//
// Tags and fields whose keys receivers keep for themselves (`time`, `_measurement`, `_field`) have
// "exported_" put before their key, and so have those whose keys have just that before them
// already.
//
// Not thread-safe. Keeps buffers, so that usual points are written without allocations.
class LineWriter {
 public:
  static constexpr size_t kMaxLineBytes = size_t{256} << 10;

  // `label` is the tag of the process on the lines.
  explicit LineWriter(ProcessLabel label) : label_(label) {}

  // Starts with the records of `block`. All three are borrowed until the last of them.
  void StartBlock(const Packet& packet, const ClientId& client, const Block& block);

  // Appends the lines of one record of the block. False if there is nothing in it that a line can
  // carry: nothing is appended then.
  bool AppendRecord(const Series& record, std::string* out);

  // Bytes that the line of the last record took, or would have taken.
  size_t tried_bytes() const { return tried_bytes_; }

 private:
  void EscapeFields();
  void AppendTags();
  void AppendField(std::string_view escaped_name, double value);
  bool AppendLine(std::string* out);
  void AppendBuckets(const Series& record, std::string* out);

  const ProcessLabel label_;
  const Packet* packet_ = nullptr;
  const ClientId* client_ = nullptr;
  const Block* block_ = nullptr;
  Kind kind_ = Kind::kGauge;
  bool fits_ = false;                // its time is one in nanoseconds, no name alone is too long
  std::string measurement_;          // escaped, as all below
  std::vector<std::string> fields_;  // names of the columns
  std::vector<std::string> bounds_;  // of a histogram: ",le=" and the bound for each bucket
  std::string time_;                 // with the space in front and the line's end
  PointTags tags_;
  std::string head_;    // of the record: measurement and tags
  std::string values_;  // of the line: its fields
  size_t tried_bytes_ = 0;
};

// Appends a line for each number of the agent's own, with the tag `host` and the time of `now_ns`.
void AppendHealthLines(const Health& health, std::string_view host, int64_t now_ns,
                       std::string* out);

}  // namespace tidegate::agent

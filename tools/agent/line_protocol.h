#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/health.h"
#include "agent/packet_reader.h"
#include "agent/packet_sink.h"
#include "agent/point_mapping.h"

namespace tidegate::agent {

// Where in a line a text stands. Comma, space and, but for the measurement, the equals sign are
// written behind a backslash.
enum class LinePart { kMeasurement, kTag, kField };

// Appends `text` as it stands in a line. What no escape carries to every receiver becomes `_`:
// control characters, bytes that are not UTF-8, a backslash that would be taken for an escape, a
// quote in a field key, a # at the front of a measurement, and an empty text.
void AppendEscaped(LinePart part, std::string_view text, std::string* out);

// Writes points as lines of the InfluxDB line protocol. Every field is a float; NaN and infinities,
// which no receiver takes, are left out, and so is a line without any field. Times are nanoseconds.
// Of tags whose keys become one by the escapes, a line has the first. Buckets whose bounds are
// equal in the digits of their names are one. A histogram whose bucket lines would take more than
// 16 MiB gets no line at all.
//
// Not thread-safe. Keeps buffers, so that usual points are written without allocations.
class LineWriter {
 public:
  // With `label_pid` lines carry the process as a tag.
  explicit LineWriter(bool label_pid) : label_pid_(label_pid) {}

  // Starts with the records of `block`, which is borrowed until the last of them.
  void StartBlock(const Packet& packet, const ClientId& client, const Block& block);

  // Appends the lines of one record of the block. False if there is nothing in it that a line can
  // carry: nothing is appended then.
  bool AppendRecord(const Series& record, std::string* out);

 private:
  void AppendTags();
  void AppendField(std::string_view escaped_name, double value);
  bool AppendLine(std::string* out);
  void AppendBuckets(const Series& record, std::string* out);

  const bool label_pid_;
  const Packet* packet_ = nullptr;
  const ClientId* client_ = nullptr;
  const Block* block_ = nullptr;
  Kind kind_ = Kind::kGauge;
  bool in_time_ = false;             // the block's time can be said in nanoseconds
  std::string measurement_;          // escaped, as all below
  std::vector<std::string> fields_;  // names of the columns
  std::vector<std::string> bounds_;  // of a histogram: ",le=" and the bound for each bucket
  std::string time_;                 // with the space in front and the line's end
  PointTags tags_;
  std::string head_;    // of the record: measurement and tags
  std::string values_;  // of the line: its fields
};

// Appends a line for each number of the agent's own, with the tag `host` and the time of `now_ns`.
void AppendHealthLines(const Health& health, std::string_view host, int64_t now_ns,
                       std::string* out);

}  // namespace tidegate::agent

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "agent/read_error.h"

// The receiving side's view of a metrics packet. This unit is written from the description of the
// wire format alone and shares nothing with the encoder, so that it can be held against it.
//
// A packet is a header followed by blocks, a block is a name with its columns followed by series
// records. Integers are little-endian, strings are a u32 length and raw bytes.

namespace tidegate::agent {

struct Tag {
  std::string key;
  std::string value;

  bool operator==(const Tag& other) const { return key == other.key && value == other.value; }
};

struct Field {
  std::string name;
  uint8_t type = 0;  // 0, a column of doubles, is the only type there is
};

// One record: the values of one series at the block's timestamp.
struct Series {
  uint32_t tag_hash = 0;
  std::vector<Tag> tags;          // in the order they were sent
  std::vector<uint32_t> indexes;  // which of the block's fields the values belong to; none: all
  std::vector<double> values;
};

struct Block {
  uint8_t wire_type = 0;  // 1 to 8, see WireTypeName
  uint32_t name_hash = 0;
  int64_t timestamp = 0;  // seconds since the epoch
  std::string name;
  std::vector<Field> fields;   // none: each series has one nameless value
  std::vector<Series> series;  // may be empty: a metric can have nothing to say

  // The name of the column that `record.values[i]` belongs to; empty in a block without fields.
  // REQUIRES: `record` is one of `series`, and i < record.values.size().
  std::string FieldName(const Series& record, size_t i) const;
};

struct Packet {
  uint8_t version = 0;
  uint32_t header_len = 0;
  uint32_t body_len = 0;
  int64_t send_time_ms = 0;  // milliseconds since the epoch
  uint32_t format_word = 0;
  uint32_t block_count = 0;
  uint32_t series_count = 0;
  std::string tenant;
  std::vector<Tag> tenant_tags;
  std::string sdk_version;
  std::vector<Block> blocks;
};

// Decodes one whole packet. Anything but a packet that agrees with itself in every length and
// count, up to its last byte, is refused. Returns false and fills `error` then, and leaves `packet`
// as it was. Never reads outside `data`, and never allocates more than a small multiple of `size`.
// Keeps no state: safe from any number of threads.
bool ReadPacket(const void* data, size_t size, Packet* packet, ReadError* error);

// Decodes packets one after another as ReadPacket does, in a third of the time, as it uses the
// memory of one for the next.
//
// Not thread-safe. Keeps up to some ten times the bytes of the last packets, of 16 MiB of them at
// most.
class PacketReader {
 public:
  // Null, with `error`, if the packet is refused. The result is good until the next call, and may
  // be changed.
  Packet* Read(const void* data, size_t size, ReadError* error);

 private:
  Packet packet_;
  size_t read_bytes_ = 0;  // since packet_ was last replaced
};

// The text of a wire type that ReadPacket lets through, as "gauge"; "unknown" for all others.
const char* WireTypeName(uint8_t wire_type);

}  // namespace tidegate::agent

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/batch.h"

namespace tidegate::agent {

// The layout of a segment, a file of the spool: eight bytes that tell the form of the bodies,
// kSegmentMagic for lines; then records. A record is a head and
// the body of a packed batch. Numbers are little-endian:
//
//   4  kRecordMarker, which no line of text has: where the next record is looked for after damage
//   4  CRC-32 of the 28 bytes that follow
//   8  bytes of the body
//   8  points
//   8  when it was written, in seconds since 1970
//   4  CRC-32 of the body
//   4  kRecordDone once it was delivered; anything else: not yet
constexpr std::string_view kSegmentMagic = "TGSPOOL1";
constexpr size_t kRecordHeadSize = 40;

struct SpoolRecord {
  uint64_t offset = 0;  // of the head in the segment
  uint64_t size = 0;    // of the body
  uint64_t points = 0;
  int64_t time = 0;  // seconds since 1970
  uint32_t crc = 0;  // of the body

  uint64_t body() const { return offset + kRecordHeadSize; }
  uint64_t end() const { return body() + size; }
  uint64_t mark() const { return body() - 4; }  // where MarkOfDone goes
};

// Reads the bytes at an offset of a segment; false unless all of them could be read.
using ReadAt = std::function<bool(uint64_t offset, char* bytes, size_t size)>;

struct SegmentContent {
  std::vector<SpoolRecord> waiting;  // in order, without those that are done
  uint64_t damaged = 0;              // runs of bytes that are no record
  uint64_t damaged_points = 0;       // of those of them that still say how many they have
};

// The head of a record of `batch`, with the offset that `record` says; fills in the rest of it.
std::string MakeRecordHead(const Batch& batch, int64_t time, SpoolRecord* record);

// The bytes to be written at SpoolRecord::mark.
std::string_view MarkOfDone();

// Whether `body` is what the record was written with.
bool IsBodyOf(const SpoolRecord& record, std::string_view body);

// Finds the records of a segment of `size` bytes, after its magic. Bodies are not read. A record
// that is damaged or cut off affects no other.
SegmentContent ScanSegment(const ReadAt& read, uint64_t size);

}  // namespace tidegate::agent

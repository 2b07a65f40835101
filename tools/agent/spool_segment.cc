#include "agent/spool_segment.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace tidegate::agent {
namespace {

constexpr std::string_view kRecordMarker = "\x1bSPL";
constexpr std::string_view kRecordDone = "DONE";
constexpr size_t kCrcOffset = 4;
constexpr size_t kCheckedOffset = 8;  // from here to the mark
constexpr size_t kMarkOffset = kRecordHeadSize - kRecordDone.size();
constexpr size_t kWindow = size_t{64} << 10;  // bytes that are searched at a time

template <typename T>
void Append(T number, std::string* bytes) {
  char raw[sizeof(T)];
  std::memcpy(raw, &number, sizeof(T));  // x86-64 is little-endian
  bytes->append(raw, sizeof(T));
}

template <typename T>
T Take(std::string_view* bytes) {
  T number;
  std::memcpy(&number, bytes->data(), sizeof(T));
  bytes->remove_prefix(sizeof(T));
  return number;
}

uint32_t Crc(std::string_view bytes) {
  return static_cast<uint32_t>(
      crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

std::string_view Checked(std::string_view head) {
  return head.substr(kCheckedOffset, kMarkOffset - kCheckedOffset);
}

// Whether `head` is one; fills in all but the offset, and whether its mark is set.
bool ReadHead(std::string_view head, SpoolRecord* record, bool* done) {
  if (head.substr(0, kRecordMarker.size()) != kRecordMarker) return false;
  std::string_view rest = head.substr(kCrcOffset);
  if (Take<uint32_t>(&rest) != Crc(Checked(head))) return false;
  record->size = Take<uint64_t>(&rest);
  record->points = Take<uint64_t>(&rest);
  record->time = Take<int64_t>(&rest);
  record->crc = Take<uint32_t>(&rest);
  *done = rest == kRecordDone;
  return true;
}

// The first marker at `from` or after it, or `size` if there is none.
uint64_t FindMarker(const ReadAt& read, uint64_t from, uint64_t size) {
  std::string window;
  while (size - from >= kRecordHeadSize) {
    window.resize(std::min<uint64_t>(kWindow, size - from));
    if (!read(from, window.data(), window.size())) return size;
    const size_t at = window.find(kRecordMarker);
    if (at != std::string::npos) return from + at;
    from += window.size() - (kRecordMarker.size() - 1);  // it may begin at the window's end
  }
  return size;
}

}  // namespace

std::string MakeRecordHead(const Batch& batch, int64_t time, SpoolRecord* record) {
  record->size = batch.body.size();
  record->points = batch.points;
  record->time = time;
  record->crc = Crc(batch.body);
  std::string checked;
  Append(record->size, &checked);
  Append(record->points, &checked);
  Append(record->time, &checked);
  Append(record->crc, &checked);
  std::string head(kRecordMarker);
  Append(Crc(checked), &head);
  head += checked;
  head.resize(kRecordHeadSize, '\0');
  return head;
}

std::string_view MarkOfDone() { return kRecordDone; }

bool IsBodyOf(const SpoolRecord& record, std::string_view body) {
  return body.size() == record.size && Crc(body) == record.crc;
}

SegmentContent ScanSegment(const ReadAt& read, uint64_t size) {
  SegmentContent content;
  uint64_t at = kSegmentMagic.size();
  bool in_damage = false;
  while (at < size) {
    SpoolRecord record;
    record.offset = at;
    char head[kRecordHeadSize];
    bool done = false;
    const bool has_head = size - at >= kRecordHeadSize && read(at, head, sizeof(head)) &&
                          ReadHead({head, sizeof(head)}, &record, &done);
    if (has_head && record.size <= size - record.body()) {
      if (!done) content.waiting.push_back(record);
      at = record.end();
      in_damage = false;
      continue;
    }
    if (has_head && !done) content.damaged_points += record.points;
    if (!std::exchange(in_damage, true)) ++content.damaged;
    at = FindMarker(read, at + 1, size);
  }
  return content;
}

}  // namespace tidegate::agent

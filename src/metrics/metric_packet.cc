#include "metrics/metric_packet.h"

#include <cassert>
#include <cstring>
#include <type_traits>

#include "codec/tag_kv.h"
#include "util/metric_log.h"

namespace METRICS {

using lattice_kit::codec::Append;
using lattice_kit::codec::AppendBytes;

namespace {

// The header of a block: offsets of what is written later, and its length but for name and columns.
constexpr uint32_t kBlockSeriesOffset = 4;
constexpr uint32_t kTimestampOffset = 13;
constexpr size_t kFixedHeaderBytes = 29;

constexpr uint32_t kValueBytes = sizeof(double);

void PutHeader(EPacket& pack, const BlockHeader& header) {
  pack.Put(uint32_t{0});  // length
  pack.Put(uint32_t{0});  // number of records
  pack.Put(static_cast<uint8_t>(header.type));
  pack.Put(header.name_hash);
  pack.Put(header.timestamp);
  pack.EncodeString(header.name);
  if (header.columns.empty()) {
    pack.Put(uint32_t{0});
  } else {
    pack.PutBytes(header.columns);
  }
}

size_t RecordBytes(std::string_view tags, size_t indexes, size_t values) {
  return tags.size() + (2 + indexes) * sizeof(uint32_t) +
         values * (sizeof(kValueBytes) + kValueBytes);
}

/// Makes room in `pack`; false, with an Error line, when it cannot get that long.
bool MakeRoom(EPacket& pack, size_t bytes) {
  if (!pack.TryReserve(bytes)) {
    METRICS_LOG_ERROR("Series record too long, bytes: %lu\n", bytes);
    return false;
  }
  return true;
}

void AppendValues(char*& to, const double* values, size_t count) {
  Append(to, static_cast<uint32_t>(count));
  for (size_t i = 0; i < count; ++i) {
    Append(to, kValueBytes);
    Append(to, values[i]);
  }
}

}  // namespace

void EPacket::EncodeString(const std::string& s) {
  Reserve(static_cast<int32_t>(sizeof(uint32_t) + s.size()));
  lattice_kit::codec::EncodeText(s, *this);
}

void EPacket::CopyTo(std::string& out, const char* start, unsigned int len) const {
  if (start < begin || start + len > cursor) {
    return;
  }
  out.assign(start, len);
}

void EPacket::PutBytes(std::string_view bytes) {
  PutRaw(bytes.data(), static_cast<int32_t>(bytes.size()));
}

std::string PackHeader(const BlockHeader& header) {
  EPacket scratch(kTagScratchBytes);
  PutHeader(scratch, header);
  return scratch.Bytes();
}

void MetricDataPack::OpenBlock(const BlockHeader& header, bool save) {
  assert(!HasOpenBlock());
  Reserve(static_cast<int32_t>(kFixedHeaderBytes + header.name.size() + header.columns.size()));
  header_offset_ = static_cast<uint32_t>(Used());
  PutHeader(*this, header);
  if (save) {
    header_copy_.clear();
    const char* const start = begin + header_offset_;
    CopyTo(header_copy_, start, static_cast<unsigned int>(cursor - start));
  }
}

void MetricDataPack::ReopenBlock() {
  assert(!HasOpenBlock());
  const auto start = static_cast<uint32_t>(Used());
  PutBytes(header_copy_);
  header_offset_ = start;
}

void MetricDataPack::PutRecord(std::string_view tags, const std::vector<uint32_t>& column_indexes,
                               const std::vector<double>& values) {
  if (values.empty() || !MakeRoom(*this, RecordBytes(tags, column_indexes.size(), values.size()))) {
    return;
  }
  AppendBytes(cursor, tags);
  Append(cursor, static_cast<uint32_t>(column_indexes.size()));
  for (const uint32_t index : column_indexes) {
    Append(cursor, index);
  }
  AppendValues(cursor, values.data(), values.size());
  ++series_count_;
  ++block_series_;
}

void MetricDataPack::CloseBlock() {
  if (!HasOpenBlock()) {
    return;
  }
  Patch(header_offset_, static_cast<uint32_t>(Used()) - header_offset_);
  Patch(header_offset_ + kBlockSeriesOffset, block_series_);
  header_offset_ = 0;
  block_series_ = 0;
  ++block_count_;
}

// As a block that is opened, given a record and closed: nearly all of a flush is this.
inline void MetricDataPack::EncodeOneSeriesMetric(const std::string& header, int64_t timestamp,
                                                  std::string_view tags, const double* numbers,
                                                  size_t count) {
  assert(!HasOpenBlock());
  const size_t bytes = header.size() + RecordBytes(tags, 0, count);
  if (!MakeRoom(*this, bytes)) {
    return;
  }
  const auto start = static_cast<uint32_t>(Used());
  AppendBytes(cursor, header);
  Patch(start, static_cast<uint32_t>(bytes));
  Patch(start + kBlockSeriesOffset, uint32_t{1});
  Patch(start + kTimestampOffset, timestamp);
  AppendBytes(cursor, tags);
  Append(cursor, uint32_t{0});  // no column indexes
  AppendValues(cursor, numbers, count);
  ++series_count_;
  ++block_count_;
}

void MetricDataPack::PutNumberBlocks(const std::vector<std::string>& headers, int64_t timestamp,
                                     std::string_view tags, const double* numbers) {
  for (size_t i = 0; i < headers.size(); ++i) {
    EncodeOneSeriesMetric(headers[i], timestamp, tags, numbers + i, 1);
  }
}

void MetricDataPack::PutRowBlock(const std::string& header, int64_t timestamp,
                                 std::string_view tags, const double* numbers, size_t count) {
  EncodeOneSeriesMetric(header, timestamp, tags, numbers, count);
}

void MetricDataPack::Rewind() {
  ZeroCounters();
  cursor = begin;
}

void MetricDataPack::ZeroCounters() {
  header_offset_ = 0;
  block_series_ = 0;
  series_count_ = 0;
  block_count_ = 0;
}

}  // namespace METRICS

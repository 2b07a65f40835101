#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "codec/pack.h"
#include "util/metric_common.h"
#include "util/metric_size_limits.h"

namespace METRICS {

/// A `Pack` with the text operations of packets.
class EPacket : public lattice_kit::codec::Pack {
 public:
  using Pack::Pack;

  /// Appends `s` as a 32-bit length and its bytes.
  void EncodeString(const std::string& s);
  /// Replaces `out` by the `len` bytes at `start`; leaves it alone if they are not all in here.
  void CopyTo(std::string& out, const char* start, unsigned int len) const;
  /// Appends `bytes` as they are.
  void PutBytes(std::string_view bytes);
};

/// What the header of a block says. `columns` is a result of `PackFields`, or empty.
struct BlockHeader {
  MetricsType type;
  uint32_t name_hash;
  const std::string& name;
  const std::string& columns;
  int64_t timestamp;
};

/// The header in its packet form. The length of the block and the number of its records are 0.
std::string PackHeader(const BlockHeader& header);

/// A packet under construction: a codec header, then metric blocks, of which at most one is open.
///
/// Owned by one encoder and used by one thread at a time; the buffer is kept from packet to packet.
/// Headers and records get their room before their first byte: where memory runs out, the packet
/// has no part of one, and can be sent once its open block is closed.
class MetricDataPack : public EPacket {
 public:
  MetricDataPack() : EPacket(kMetricMaxMsgLen) {}

  /// Opens a block. `save`: keeps the header for `ReopenBlock`. REQUIRES: none is open.
  void OpenBlock(const BlockHeader& header, bool save);
  /// Opens a block with the saved header. REQUIRES: none is open.
  void ReopenBlock();
  /// Writes a record into the open block; nothing without `values`, or, with an Error line, for a
  /// record that is longer than a packet can get.
  void PutRecord(std::string_view tags, const std::vector<uint32_t>& column_indexes,
                 const std::vector<double>& values);
  /// Closes the open block, if there is one.
  void CloseBlock();
  // Write closed blocks of one record each. `header` is a result of `PackHeader`; `timestamp` takes
  // the place of the one in it. A block that is longer than a packet can get is left out, with an
  // Error line. REQUIRES: no block is open.
  /// A block for each header, with the number of the same index.
  void PutNumberBlocks(const std::vector<std::string>& headers, int64_t timestamp,
                       std::string_view tags, const double* numbers);
  /// A block with `count` columns.
  void PutRowBlock(const std::string& header, int64_t timestamp, std::string_view tags,
                   const double* numbers, size_t count);
  /// Empties the packet, keeping its buffer.
  void Rewind();
  /// Zeroes the counters. The bytes stay.
  void ZeroCounters();

  bool AtSizeLimit() const { return Used() >= kMetricMaxMsgLen; }
  bool HasOpenBlock() const { return header_offset_ != 0; }
  uint32_t header_offset() const { return header_offset_; }
  uint32_t block_series() const { return block_series_; }
  uint32_t series_count() const { return series_count_; }
  uint32_t block_count() const { return block_count_; }
  const std::string& header_copy() const { return header_copy_; }

 private:
  void EncodeOneSeriesMetric(const std::string& header, int64_t timestamp, std::string_view tags,
                             const double* numbers, size_t count);

  uint32_t header_offset_ = 0;  ///< of the open block; 0: none is open
  uint32_t block_series_ = 0;   ///< records in the open block
  uint32_t series_count_ = 0;   ///< records in the packet
  uint32_t block_count_ = 0;    ///< closed blocks in the packet
  std::string header_copy_;     ///< of a block that goes on in the next packet
};

}  // namespace METRICS

#pragma once

#include <cstdint>
#include <string>

#include "codec/pack.h"
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
};

/// A packet under construction: a codec header, then metric blocks, of which at most one is open.
/// Owned by one encoder and used by one thread at a time; the buffer is kept from packet to packet.
class MetricDataPack : public EPacket {
 public:
  MetricDataPack() : EPacket(kMetricMaxMsgLen) {}

  bool AtSizeLimit() const { return Used() >= kMetricMaxMsgLen; }

  void ZeroCounters();

  uint32_t header_offset = 0;  ///< of the open block; 0: none is open
  uint32_t block_series = 0;   ///< series records in the open block
  uint32_t series_count = 0;   ///< series records in the packet
  uint32_t block_count = 0;    ///< closed blocks in the packet
  /// Header of a block that spans packets, to open it again in the next one.
  std::string header_copy;
};

}  // namespace METRICS

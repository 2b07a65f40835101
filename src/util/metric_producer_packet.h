#pragma once

#include <cstdint>
#include <string>

namespace METRICS {

/// The envelope of a packet on a TCP connection: a head of 24 bytes, and a body that holds the
/// packet.
///
/// The head, little-endian: u32 kind (1), u32 length of the body, u32 length of the packet, then
/// zeros. A body that is not compressed is told by the two lengths being equal. A plain value.
class MetricProducerPacket {
 public:
  /// The agent's reply to a head or a body: 16 bytes, of which the first two are read.
  struct Response {
    uint16_t code = 0;  ///< 2 accepts a head, 1 a body
    uint8_t unused[14] = {};
  };
  static_assert(sizeof(Response) == 16);

  MetricProducerPacket(const std::string& packet_header, const std::string& packet_body)
      : header(packet_header), body(packet_body) {}

  /// The packet `data` as a zlib stream of level 9. Throws `std::runtime_error` when zlib fails.
  static MetricProducerPacket Create(const std::string& data);
  /// The packet `data` as it is.
  static MetricProducerPacket CreateWithoutCompress(const std::string& data);

  std::string header;
  std::string body;
};

}  // namespace METRICS

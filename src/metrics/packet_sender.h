#pragma once

#include <cstdint>

namespace METRICS {

/// A finished packet, in a buffer of its encoder's that holds it for the call.
struct FinishedPacket {
  char* begin;
  int length;
  // Low 16 bits of how many there are in it.
  int16_t metric_num;  ///< metric blocks
  int16_t series_num;  ///< series records
};

/// A sender as its encoder sees it. All of it is used on the thread that flushes.
class PacketSender {
 public:
  PacketSender(const PacketSender&) = delete;
  PacketSender& operator=(const PacketSender&) = delete;

  /// Delivers a packet, or drops it; the caller cannot tell.
  virtual void SendPacket(const FinishedPacket& packet) = 0;
  /// Accounts for what a cell reported and the encoder had no memory to write.
  virtual void CountLostSeries() = 0;

  int64_t last_flush_ts_ = 0;   ///< the boundary in work, seconds since the epoch; 0: none yet
  const bool pre_encode_tags_;  ///< items hold their tags in packet form

 protected:
  explicit PacketSender(bool pre_encode_tags) : pre_encode_tags_(pre_encode_tags) {}
  ~PacketSender() = default;
};

}  // namespace METRICS

#pragma once

#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "codec/tag_kv.h"
#include "metrics/metric_packet.h"
#include "metrics/packet_sender.h"

namespace METRICS {

/// The two packets that grow side by side in a flush: that of the boundary, and that of the
/// interval before, for counters that begin or resume. Each is sent when it has reached 262143
/// bytes, and what is left at the end; a record is never split, so a packet can be longer.
///
/// Used by one thread at a time. A packet that was sent is gone, whether or not it arrives.
class FlushPackets {
 public:
  using Send = std::function<void(const FinishedPacket& packet)>;
  using CountLost = std::function<void()>;

  /// `send` gets each packet. `count_lost` is told of each series whose numbers are lost because
  /// memory ran out between their cell and the packet.
  FlushPackets(Send send, CountLost count_lost);

  /// Makes the codec header, with which each packet begins: it tells who sends it.
  void EncodeCodecHeader(const std::string& tenant,
                         const std::vector<lattice_kit::codec::TagKV>& tenant_tags);

  /// Sends what is left of the registry before, and begins the packet of the next one.
  void BeginRegistry();
  /// The packet of the boundary.
  MetricDataPack& Current() { return pack_; }
  /// After each unit of records in `Current`: sends it at the size limit, its open block closed,
  /// and begins the next one. `block_goes_on`: with that block again, from its saved header.
  void EndUnit(bool block_goes_on) {
    const bool reopen = block_goes_on && pack_.HasOpenBlock();
    if (CheckMsgLenAndSend(pack_)) {
      BeginNext(reopen);
    }
  }
  /// Has `write(packet)` write into the packet of the interval before, which is begun if there is
  /// nothing in it, and sends that at the size limit, its open block closed.
  template <class Write>
  void WritePrevious(Write write);
  /// Closes the open blocks of both.
  void CloseBlocks();
  /// Sends what both hold, that of the boundary first, their open blocks closed.
  void CleanUpPackage();

  /// Does `work`, which drains a cell and writes its report. Where memory runs out in between, the
  /// report is lost, and counted.
  template <class Work>
  void DrainAndWrite(Work work);

 private:
  /// Begins a packet anew.
  void RePackFromRegistry(MetricDataPack& pack);
  void BeginNext(bool reopen);
  bool CheckMsgLenAndSend(MetricDataPack& pack) {
    if (!pack.AtSizeLimit()) {
      return false;
    }
    StampAndSend(pack);
    return true;
  }
  /// Closes the open block and fills in the lengths, counts and time of the codec header.
  FinishedPacket RefillBeforeSend(MetricDataPack& pack);
  void StampAndSend(MetricDataPack& pack);
  void SendIfAny(MetricDataPack& pack);

  const Send send_;
  const CountLost count_lost_;
  std::string codec_header_;
  uint32_t header_len_ = 0;   ///< of `codec_header_`
  MetricDataPack pack_;       ///< of the boundary
  MetricDataPack prev_pack_;  ///< of the interval before
};

template <class Write>
void FlushPackets::WritePrevious(Write write) {
  if (prev_pack_.series_count() == 0) {
    RePackFromRegistry(prev_pack_);
  }
  write(prev_pack_);
  CheckMsgLenAndSend(prev_pack_);
}

template <class Work>
void FlushPackets::DrainAndWrite(Work work) {
  try {
    work();
  } catch (const std::bad_alloc&) {
    count_lost_();
    throw;
  }
}

}  // namespace METRICS

#include "metrics/flush_packets.h"

#include <utility>

#include "util/sdk_version.h"
#include "util/wall_clock.h"

namespace METRICS {

using lattice_kit::codec::TagKV;

namespace {

// The codec header: offsets of what is filled in later, and its constants.
constexpr uint32_t kHeaderLenOffset = 9;
constexpr uint32_t kBodyLenOffset = 13;
constexpr uint32_t kSendTimeOffset = 22;
constexpr uint32_t kBlockCountOffset = 42;
constexpr uint32_t kSeriesCountOffset = 46;

constexpr uint64_t kMagic = 0x6d65747269637332;  // "2scirtem"
constexpr uint8_t kVersion = 4;
constexpr uint32_t kFormatWord = 15;

void EncodeTenantTags(EPacket& packet, const std::vector<TagKV>& tenant_tags) {
  packet.Put(static_cast<uint32_t>(2 * tenant_tags.size()));
  for (const TagKV& tag : tenant_tags) {
    lattice_kit::codec::Encode(tag, packet);
  }
}

}  // namespace

FlushPackets::FlushPackets(Send send, CountLost count_lost)
    : send_(std::move(send)), count_lost_(std::move(count_lost)) {}

void FlushPackets::EncodeCodecHeader(const std::string& tenant,
                                     const std::vector<TagKV>& tenant_tags) {
  EPacket scratch(kMetricMaxMsgLen);
  scratch.Put(kMagic);
  scratch.Put(kVersion);
  scratch.Put(uint32_t{0});  // header_len
  scratch.Put(uint32_t{0});  // body_len
  scratch.Put(uint8_t{0});
  scratch.Put(uint32_t{0});
  scratch.Put(int64_t{0});  // send_time_ms
  scratch.Put(int64_t{0});
  scratch.Put(kFormatWord);
  scratch.Put(uint32_t{0});  // block_count
  scratch.Put(uint32_t{0});  // series_count
  scratch.EncodeString(tenant);
  EncodeTenantTags(scratch, tenant_tags);
  scratch.EncodeString(kSdkVersion);
  header_len_ = static_cast<uint32_t>(scratch.Used());
  scratch.Patch(kHeaderLenOffset, header_len_);
  codec_header_ = scratch.Bytes();
}

void FlushPackets::BeginRegistry() {
  CleanUpPackage();
  RePackFromRegistry(pack_);
}

void FlushPackets::BeginNext(bool reopen) {
  RePackFromRegistry(pack_);
  if (reopen) {
    pack_.ReopenBlock();
  }
}

void FlushPackets::CloseBlocks() {
  pack_.CloseBlock();
  prev_pack_.CloseBlock();
}

void FlushPackets::CleanUpPackage() {
  SendIfAny(pack_);
  SendIfAny(prev_pack_);
}

void FlushPackets::SendIfAny(MetricDataPack& pack) {
  if (pack.series_count() > 0) {
    StampAndSend(pack);
  }
}

void FlushPackets::RePackFromRegistry(MetricDataPack& pack) {
  pack.Rewind();
  pack.PutBytes(codec_header_);
}

FinishedPacket FlushPackets::RefillBeforeSend(MetricDataPack& pack) {
  pack.Patch(kSendTimeOffset, WallMillis());
  pack.CloseBlock();
  pack.Patch(kBodyLenOffset, static_cast<uint32_t>(pack.Used()) - header_len_);
  pack.Patch(kBlockCountOffset, pack.block_count());
  pack.Patch(kSeriesCountOffset, pack.series_count());
  const FinishedPacket packet{pack.begin, pack.Used(), static_cast<int16_t>(pack.block_count()),
                              static_cast<int16_t>(pack.series_count())};
  pack.ZeroCounters();
  return packet;
}

void FlushPackets::StampAndSend(MetricDataPack& pack) { send_(RefillBeforeSend(pack)); }

}  // namespace METRICS

#include "metrics/metric_encoder.h"

#include <new>

#include "metrics/metric_parts.h"
#include "metrics/packet_sender.h"
#include "metrics/registry_parts.h"
#include "util/line_allocator.h"
#include "util/metric_clock_util.h"
#include "util/metric_log.h"
#include "util/sdk_version.h"

namespace METRICS {

using lattice_kit::codec::FieldInfo;
using lattice_kit::codec::Pack;
using lattice_kit::codec::TagKV;

namespace {

// The codec header: offsets of what is patched, and its constants.
constexpr uint32_t kHeaderLenOffset = 9;
constexpr uint32_t kBodyLenOffset = 13;
constexpr uint32_t kSendTimeOffset = 22;
constexpr uint32_t kBlockCountOffset = 42;
constexpr uint32_t kSeriesCountOffset = 46;

constexpr uint64_t kMagic = 0x6d65747269637332;  // "2scirtem"
constexpr uint8_t kVersion = 4;
constexpr uint32_t kFormatWord = 15;

// The header of a block.
constexpr uint32_t kBlockSeriesOffset = 4;
constexpr size_t kBlockHeaderBytes = 29;  // beside the name and the fields

constexpr uint32_t kValueBytes = sizeof(double);

void PutBytes(Pack& pack, std::string_view bytes) {
  pack.PutRaw(bytes.data(), static_cast<int32_t>(bytes.size()));
}

}  // namespace

bool CheckSendRes(MetricsType type, const std::vector<double>& values, unsigned long expected) {
  if (values.empty()) {
    return false;
  }
  if (values.size() != expected) {
    METRICS_LOG_WARN("Invalid Metric[%d] array size [require: %lu actual: %lu]\n",
                     static_cast<int>(type), expected, values.size());
    return false;
  }
  return true;
}

MetricEncoderBase::MetricEncoderBase(PacketSender* sender, const std::string& name)
    : sender_(sender), name_(name), pre_encode_tags(sender->pre_encode_tags_) {}

MetricEncoderBase::~MetricEncoderBase() { sender_ = nullptr; }

MetricEncoder::MetricEncoder(PacketSender* sender, const std::string& name)
    : MetricEncoderBase(sender, name) {}

MetricEncoder::~MetricEncoder() = default;

void MetricEncoder::Init(const std::string& account, const std::string& project,
                         const std::string& psm) {
  tenant_tags_.emplace_back(kAccountIdKey, account);
  tenant_tags_.emplace_back(kProjectIdKey, psm.empty() ? project : psm);
  EncodeCodecHeader(name_);
}

void MetricEncoder::EncodeCodecHeader(const std::string& tenant) {
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
  EncodeTenantTags(scratch);
  scratch.EncodeString(kSdkVersion);
  header_len_ = static_cast<uint32_t>(scratch.Used());
  scratch.Patch(kHeaderLenOffset, header_len_);
  codec_header_ = scratch.Bytes();
}

void MetricEncoder::EncodeTenantTags(EPacket& packet) {
  packet.Put(static_cast<uint32_t>(2 * tenant_tags_.size()));
  for (const TagKV& tag : tenant_tags_) {
    lattice_kit::codec::Encode(tag, packet);
  }
}

void MetricEncoder::PackCollector(
    const std::vector<std::shared_ptr<MetricCollectorBase>>& collectors) {
  try {
    PackAll(collectors);
  } catch (const std::bad_alloc&) {
    // Headers and records get their room before their first byte: what the packets hold is whole.
    RefillMetricHeader(pack_);
    RefillMetricHeader(prev_pack_);
    EndFlush();
    throw;
  }
  EndFlush();
}

void MetricEncoder::EndFlush() {
  CleanUpPackage();
  // Nothing is locked here: the last pin of a metric or registry destroys it.
  metric_.reset();
  registry_.reset();
}

void MetricEncoder::CountLostSeries() { sender_->CountLostSeries(); }

void MetricEncoder::PackAll(const std::vector<std::shared_ptr<MetricCollectorBase>>& collectors) {
  for (const std::shared_ptr<MetricCollectorBase>& collector : collectors) {
    metric_ = collector->PinMetric();
    std::shared_ptr<RegistryParts> registry = metric_ == nullptr ? nullptr : metric_->PinRegistry();
    if (registry == nullptr) {
      continue;
    }
    METRICS_LOG_INFO("Sender[%s]Collector %s has %lu series at ts: %ld\n", name_.c_str(),
                     collector->name_.c_str(), collector->SeriesSize(), sender_->last_flush_ts_);
    if (registry != registry_) {
      registry_ = std::move(registry);
      interval_ = registry_->FlushInterval();
      CleanUpPackage();
      RePackFromRegistry(pack_);
    }
    metric_->emit_success_.SpreadAsAsked();
    PackMetric(collector);
  }
}

void MetricEncoder::PackMetric(const std::shared_ptr<MetricCollectorBase>& collector) {
  std::vector<Series> items = collector->GetAll();
  if (items.empty()) {
    METRICS_LOG_DEBUG("Sender[%s]Collector [%s] has no series.\n", name_.c_str(),
                      collector->name_.c_str());
    return;
  }
  blocks_.clear();
  if (!more_blocks_.empty()) {
    more_blocks_.clear();
  }
  switch (collector->co_type_) {
    case MetricCoItemType::kCoItemSuffix:
      PackSuffixedMetric(items);
      return;
    case MetricCoItemType::kCoItemField:
      PackMultiFeildMetric(items);
      return;
    case MetricCoItemType::kCoItemCompatible:
      PackCompatibleMetric(items);
      return;
    case MetricCoItemType::kCoItemUnknown:
      break;
  }
  METRICS_LOG_WARN("Sender[%s]Internal Error with co_type: %d\n", name_.c_str(),
                   static_cast<int>(collector->co_type_));
}

void MetricEncoder::Reset(MetricDataPack& pack) {
  pack.ZeroCounters();
  pack.cursor = pack.begin;
}

void MetricEncoder::RePackFromRegistry(MetricDataPack& pack) {
  Reset(pack);
  PutBytes(pack, codec_header_);
}

void MetricEncoder::RefillBeforeSend(MetricDataPack& pack, int16_t& metric_num, int16_t& series_num,
                                     bool close) {
  pack.Patch(kSendTimeOffset, WallMillis());
  if (close) {
    RefillMetricHeader(pack);
  }
  pack.Patch(kBodyLenOffset, static_cast<uint32_t>(pack.Used()) - header_len_);
  pack.Patch(kBlockCountOffset, pack.block_count);
  pack.Patch(kSeriesCountOffset, pack.series_count);
  metric_num = static_cast<int16_t>(pack.block_count);
  series_num = static_cast<int16_t>(pack.series_count);
  pack.ZeroCounters();
}

void MetricEncoder::StampAndSend(MetricDataPack& pack, bool close) {
  int16_t metric_num = 0;
  int16_t series_num = 0;
  RefillBeforeSend(pack, metric_num, series_num, close);
  sender_->SendPacket({pack.begin, pack.Used(), metric_num, series_num});
}

bool MetricEncoder::CheckMsgLenAndSend(MetricDataPack& pack, bool close) {
  if (!pack.AtSizeLimit()) {
    return false;
  }
  StampAndSend(pack, close);
  return true;
}

void MetricEncoder::CleanUpPackage() {
  if (pack_.series_count > 0) {
    StampAndSend(pack_, false);
  }
  if (prev_pack_.series_count > 0) {
    StampAndSend(prev_pack_, false);
  }
}

void MetricEncoder::FetchAhead(const std::vector<Series>& items, size_t at) {
  constexpr size_t kAhead = 8;  // what the second step reads has come by then
  const auto prefetch = [](const void* start, size_t lines) {
    for (size_t i = 0; i < lines; ++i) {
      __builtin_prefetch(static_cast<const char*>(start) + i * kCacheLineBytes);
    }
  };
  if (at + 2 * kAhead < items.size()) {
    const auto& [tags, item] = items[at + 2 * kAhead];
    prefetch(item.get(), 4);
    prefetch(&tags, 1);
  }
  if (at + kAhead < items.size()) {
    const auto& [tags, item] = items[at + kAhead];
    if (item->encoded_tags_.empty()) {
      prefetch(tags.data(), 2);
    } else {
      prefetch(item->encoded_tags_.data(), 2);
    }
  }
}

void MetricEncoder::AdvanceTo(std::vector<Series>& items, size_t at) {
  if (at > 0) {
    items[at - 1].second.reset();
  }
  FetchAhead(items, at);
}

void MetricEncoder::BeginSeries(const Series& series) {
  series_ = &series;
  cur_tag_kv_ = {};
}

std::string_view MetricEncoder::EncodeCurrentTagKV() {
  if (cur_tag_kv_.data() != nullptr) {
    return cur_tag_kv_;
  }
  const auto& [tags, item] = *series_;
  const ImplParts& impl = *metric_->impl_parts_;
  if (pre_encode_tags) {
    cur_tag_kv_ = item->encoded_tags_;
  } else if (impl.tag_index_.size() != tags.size()) {
    METRICS_LOG_ERROR("Internal Error with Tag storage!!!!\n");
  } else {
    tag_scratch_.Clear();
    impl.EncodeTagBlock(tags, item->tag_hash_, tag_scratch_);
    cur_tag_kv_ = {tag_scratch_.begin, static_cast<size_t>(tag_scratch_.Used())};
  }
  return cur_tag_kv_;
}

std::string MetricEncoder::PrePack(const std::vector<FieldInfo>& fields) {
  return lattice_kit::codec::PackFields(fields);
}

void MetricEncoder::PutMetricHeader(EPacket& pack, MetricsType type, unsigned int hash,
                                    const std::string& name, const std::string& fields,
                                    long timestamp) {
  pack.Put(uint32_t{0});  // block_len
  pack.Put(uint32_t{0});  // series in block
  pack.Put(static_cast<uint8_t>(type));
  pack.Put(hash);
  pack.Put(static_cast<int64_t>(timestamp));
  pack.EncodeString(name);
  if (fields.empty()) {
    pack.Put(uint32_t{0});
  } else {
    PutBytes(pack, fields);
  }
}

void MetricEncoder::EncodeMetricHeader(MetricDataPack& pack, MetricsType type, unsigned int hash,
                                       const std::string& name, const std::string& fields,
                                       long timestamp, bool save) {
  // Before the first byte: where memory runs out, no part of a header is left.
  pack.Reserve(static_cast<int32_t>(kBlockHeaderBytes + name.size() + fields.size()));
  pack.header_offset = static_cast<uint32_t>(pack.Used());
  PutMetricHeader(pack, type, hash, name, fields, timestamp);
  if (save) {
    pack.header_copy.clear();
    const char* const start = pack.begin + pack.header_offset;
    pack.CopyTo(pack.header_copy, start, static_cast<unsigned int>(pack.cursor - start));
  }
}

void MetricEncoder::RefillMetricHeader(MetricDataPack& pack) {
  if (pack.header_offset == 0) {
    return;
  }
  pack.Patch(pack.header_offset, static_cast<uint32_t>(pack.Used()) - pack.header_offset);
  pack.Patch(pack.header_offset + kBlockSeriesOffset, pack.block_series);
  pack.header_offset = 0;
  pack.block_series = 0;
  ++pack.block_count;
}

bool MetricEncoder::RefuseRecord(size_t bytes) {
  METRICS_LOG_ERROR("Series record too long, bytes: %lu\n", bytes);
  return false;
}

void MetricEncoder::CopyFromCurrentMetricHeader(MetricDataPack& pack) {
  const auto start = static_cast<uint32_t>(pack.Used());
  PutBytes(pack, pack.header_copy);
  pack.header_offset = start;
}

void MetricEncoder::EncodeOneSeriesValue(MetricDataPack& pack, std::string_view tag_block,
                                         const std::vector<uint32_t>& field_indexes,
                                         const std::vector<double>& values) {
  const size_t bytes = tag_block.size() + (2 + field_indexes.size()) * sizeof(uint32_t) +
                       values.size() * (sizeof(uint32_t) + sizeof(double));
  if (values.empty() || !MakeRoom(pack, bytes)) {
    return;
  }
  PutBytes(pack, tag_block);
  pack.Put(static_cast<uint32_t>(field_indexes.size()));
  for (const uint32_t index : field_indexes) {
    pack.Put(index);
  }
  pack.Put(static_cast<uint32_t>(values.size()));
  for (const double value : values) {
    pack.Put(kValueBytes);
    pack.Put(value);
  }
  ++pack.series_count;
  ++pack.block_series;
}

}  // namespace METRICS

// The forms of compatible metrics: one block per metric and packet where a series reports a single
// row, or the blocks of suffixed metrics. Their tag names come with each series.

#include <algorithm>

#include "codec/fnv_hash.h"
#include "metrics/cell_kinds.h"
#include "metrics/impl/metric_compatible_impl.h"
#include "metrics/metric_encoder.h"
#include "metrics/metric_parts.h"
#include "metrics/packet_sender.h"
#include "metrics/registry_parts.h"
#include "util/metric_log.h"
#include "util/metric_size_limits.h"

namespace METRICS {

using lattice_kit::codec::FieldInfo;
using lattice_kit::codec::kCodecValueDouble;
using lattice_kit::codec::Pack;
using lattice_kit::codec::TagKV;

void MetricEncoder::PackCompatibleMetric(std::vector<Series>& items) {
  const MetricsType type = metric_->compatible_type_.load();
  const CellKind* const kind = FindKind(type);
  if (kind == nullptr || !kind->compatible) {
    METRICS_LOG_ERROR("Sender[%s] Compatible unsupport MetricType: %d\n", name_.c_str(),
                      static_cast<int>(type));
  } else if (kind->numbers == 1 || IsRow(type)) {
    EncodeCompatible(type, items, kind->numbers);
  } else {
    EncodeCompatibleWithSuffix(type, items);
  }
}

void MetricEncoder::EncodeCurrentCompatibleMetricHeader(MetricDataPack& pack, MetricsType type) {
  if (metric_->kind_ != MetricCoItemType::kCoItemCompatible) {
    return;
  }
  std::string fields;
  if (type == MetricsType::kTimer) {  // only as a row does a timer share a block
    std::vector<FieldInfo> columns;
    for (const std::string& name : MetricCompatibleImpl::timer_field_info_) {
      columns.emplace_back(name, kCodecValueDouble);
    }
    fields = PrePack(columns);
  }
  EncodeMetricHeader(pack, type, metric_->name_hash_, metric_->name_, fields,
                     sender_->last_flush_ts_, true);
}

void MetricEncoder::EncodeCompatible(const MetricsType& type, std::vector<Series>& items,
                                     unsigned long array_size) {
  EncodeCurrentCompatibleMetricHeader(pack_, type);
  for (size_t k = 0; k < items.size(); ++k) {
    AdvanceTo(items, k);
    MetricCollectorItem& item = *items[k].second;
    if (!item.active_.load(std::memory_order_relaxed)) {
      continue;
    }
    DrainAndWrite([&] {
      const SendRes res = item.Data()->Send(static_cast<unsigned int>(interval_));
      if (!CheckSendRes(type, res.values, array_size)) {
        return;
      }
      EncodeCompatibleMetricTagKV(items[k]);
      EncodeOneSeriesValue(pack_, item.encoded_tags_, {}, res.values);
      ContinueBlockIfSent(k + 1 == items.size());
      if (res.need_prev) {
        cur_tag_kv_ = item.encoded_tags_;
        EncodeExtendCompatibleSeries(type, res.prev_value);
      }
    });
  }
  RefillMetricHeader(pack_);
}

void MetricEncoder::EncodeCompatibleWithSuffix(const MetricsType& type,
                                               std::vector<Series>& items) {
  const unsigned long array_size = KindOf(type).numbers;
  for (size_t k = 0; k < items.size(); ++k) {
    AdvanceTo(items, k);
    const Series& series = items[k];
    MetricCollectorItem& item = *series.second;
    if (!item.active_.load(std::memory_order_relaxed)) {
      continue;
    }
    EncodeCompatibleMetricTagKV(series);
    cur_tag_kv_ = item.encoded_tags_;
    DrainAndWrite([&] {
      const SendRes res = item.Data()->Send(static_cast<unsigned int>(interval_));
      if (!CheckSendRes(type, res.values, array_size)) {
        return;
      }
      DoPackSuffixMetric(pack_, BlocksOf(std::string(), type, false), res.values.data(),
                         sender_->last_flush_ts_);
      if (res.need_prev) {
        EncodeExtendCompatibleSeries(type, res.prev_value);
      }
    });
    if (CheckMsgLenAndSend(pack_, false)) {
      RePackFromRegistry(pack_);
    }
  }
}

void MetricEncoder::EncodeExtendCompatibleSeries(const MetricsType& type, double prev_value) {
  if (KindOf(type).previous == 0) {
    return;
  }
  // A block of its own, also for a counter, which shares one in the current packet.
  EncodePreviousInterval(prev_value, BlocksOf(std::string(), type, false));
}

void MetricEncoder::EncodeCompatibleMetricTagKV(const Series& series) {
  MetricCollectorItem& item = *series.second;
  if (!item.encoded_tags_.empty()) {
    return;
  }
  const std::vector<std::string>& pairs = series.first;
  const std::vector<tidegate::MetricTag> inserted = registry_->InsertedTags();
  std::vector<TagKV> tags;
  tags.reserve(inserted.size() + pairs.size() / 2);
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    tags.emplace_back(pairs[i], pairs[i + 1]);
  }
  for (const tidegate::MetricTag& tag : inserted) {
    tags.emplace_back(tag.key, tag.value);
  }
  std::stable_sort(tags.begin(), tags.end());  // of equal keys the series' own comes first
  const auto same_key = [](const TagKV& a, const TagKV& b) { return a.key == b.key; };
  tags.erase(std::unique(tags.begin(), tags.end(), same_key), tags.end());
  if (item.tag_hash_ == 0) {
    item.tag_hash_ = static_cast<int32_t>(lattice_kit::codec::TagVecFNVHash(tags));
  }
  Pack scratch(kTagScratchBytes);
  scratch.Put(item.tag_hash_);
  scratch.Put(static_cast<uint32_t>(2 * tags.size()));
  for (const TagKV& tag : tags) {
    lattice_kit::codec::Encode(tag, scratch);
  }
  item.encoded_tags_ = scratch.Bytes();
}

}  // namespace METRICS

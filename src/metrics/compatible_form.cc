#include "metrics/compatible_form.h"

#include <algorithm>

#include "codec/fnv_hash.h"
#include "codec/tag_kv.h"
#include "metrics/cell_kinds.h"
#include "metrics/metric_data.h"
#include "metrics/metric_parts.h"
#include "metrics/packed_values.h"
#include "metrics/registry_parts.h"
#include "util/metric_log.h"
#include "util/metric_size_limits.h"

namespace METRICS {

using lattice_kit::codec::FieldInfo;
using lattice_kit::codec::Pack;
using lattice_kit::codec::TagKV;

namespace {

/// Builds the tags of a series once, from its pairs and the registry's tags. Of equal keys the
/// first is kept: a pair's before the registry's.
void EncodeCompatibleMetricTagKV(MetricCollectorItem& item, const RegistryParts& registry) {
  if (!item.encoded_tags_.empty()) {
    return;
  }
  const PackedValues& pairs = item.values();
  const std::vector<tidegate::MetricTag> inserted = registry.InsertedTags();
  std::vector<TagKV> tags;
  tags.reserve(inserted.size() + pairs.size() / 2);
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    tags.emplace_back(std::string(pairs[i]), std::string(pairs[i + 1]));
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

SendRes Drain(MetricCollectorItem& item, const FlushJob& job) {
  return item.Data()->Send(static_cast<unsigned int>(job.interval));
}

}  // namespace

void CompatibleForm::Pack(SeriesWalk& series, const FlushJob& job) {
  blocks_.reset();
  const MetricsType type = job.metric.compatible_type_.load();
  const CellKind* const kind = FindKind(type);
  if (kind == nullptr || !kind->compatible) {
    METRICS_LOG_ERROR("Sender[%s] Compatible unsupport MetricType: %d\n", job.tenant.c_str(),
                      static_cast<int>(type));
  } else if (kind->numbers == 1 || IsRow(job.metric, type)) {
    EncodeCompatible(type, series, job);
  } else {
    EncodeCompatibleWithSuffix(type, series, job);
  }
}

void CompatibleForm::EncodeCurrentCompatibleMetricHeader(MetricsType type, const FlushJob& job) {
  const MetricParts& metric = job.metric;
  if (metric.kind_ != MetricCoItemType::kCoItemCompatible) {
    return;
  }
  std::string columns;
  if (KindOf(type).numbers > 1) {
    std::vector<FieldInfo> names;
    AppendColumns(names, type, std::string(), {});
    columns = lattice_kit::codec::PackFields(names);
  }
  packets_.Current().OpenBlock({type, metric.name_hash_, metric.name_, columns, job.boundary},
                               true);
}

void CompatibleForm::EncodeCompatible(MetricsType type, SeriesWalk& series, const FlushJob& job) {
  EncodeCurrentCompatibleMetricHeader(type, job);
  series.EachSeries([&](MetricCollectorItem& item, bool more) {
    packets_.DrainAndWrite([&] {
      const SendRes res = Drain(item, job);
      if (!CheckSendRes(type, res.values, KindOf(type).numbers)) {
        return;
      }
      EncodeCompatibleMetricTagKV(item, job.registry);
      packets_.Current().PutRecord(item.encoded_tags_, {}, res.values);
      packets_.EndUnit(more);
      if (res.need_prev) {  // a block of its own, also for a counter
        EncodeExtendCompatibleSeries(type, item, res.prev_value, job);
      }
    });
  });
  packets_.CloseBlocks();
}

void CompatibleForm::EncodeCompatibleWithSuffix(MetricsType type, SeriesWalk& series,
                                                const FlushJob& job) {
  series.EachSeries([&](MetricCollectorItem& item, bool more) {
    EncodeCompatibleMetricTagKV(item, job.registry);
    packets_.DrainAndWrite([&] {
      const SendRes res = Drain(item, job);
      if (!CheckSendRes(type, res.values, KindOf(type).numbers)) {
        return;
      }
      BlocksOf(type, job).Pack(packets_.Current(), job.boundary, item.encoded_tags_,
                               res.values.data());
      if (res.need_prev) {
        EncodeExtendCompatibleSeries(type, item, res.prev_value, job);
      }
    });
    packets_.EndUnit(more);
  });
}

void CompatibleForm::EncodeExtendCompatibleSeries(MetricsType type, const MetricCollectorItem& item,
                                                  double prev_value, const FlushJob& job) {
  if (KindOf(type).previous != 0) {
    BlocksOf(type, job).PackPrevious(packets_, job.PreviousBoundary(), item.encoded_tags_,
                                     prev_value);
  }
}

const SuffixBlocks& CompatibleForm::BlocksOf(MetricsType type, const FlushJob& job) {
  if (!blocks_.has_value()) {
    blocks_.emplace(job.metric, std::string(), type, false);
  }
  return *blocks_;
}

}  // namespace METRICS

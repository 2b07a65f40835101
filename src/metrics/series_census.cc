#include "metrics/series_census.h"

#include "metrics/impl/metric_impl.h"
#include "metrics/metric_collector.h"
#include "metrics/packed_values.h"
#include "metrics/series_limit.h"
#include "util/fork_guard.h"
#include "util/word_hash.h"

namespace METRICS {
namespace {

/// By how much `now` is larger; 0 if it is not.
uint64_t Gain(uint64_t now, uint64_t before) { return now > before ? now - before : 0; }

}  // namespace

SeriesCensus::SeriesCensus(MetricImpl& impl) : form_(impl.Type()) {
  if (form_ != MetricCoItemType::kCoItemCompatible) {
    for (const std::string& name : impl.tag_names_) {
      tags_.push_back({name, {}});
    }
  }
  if (impl.collector_ == nullptr) {
    return;
  }
  ListCursor cursor;
  for (SeriesItems piece; impl.collector_->NextPiece(cursor, piece);) {
    for (const std::shared_ptr<MetricCollectorItem>& item : piece) {
      Add(*item);
    }
  }
}

void SeriesCensus::Add(MetricCollectorItem& item) {
  ++series_;
  cells_ += item.Size();
  const PackedValues& values = item.values();
  if (form_ == MetricCoItemType::kCoItemCompatible) {
    for (size_t i = 0; i + 1 < values.size(); i += 2) {
      if (Tag* const tag = FindKey(values[i], i / 2)) {
        tag->values.Add(HashText(values[i + 1]));
      }
    }
    return;
  }
  for (size_t i = 0; i < tags_.size() && i < values.size(); ++i) {
    tags_[i].values.Add(HashText(values[i]));
  }
}

SeriesCensus::Tag* SeriesCensus::FindKey(std::string_view key, size_t expected) {
  if (expected < tags_.size() && tags_[expected].key == key) {
    return &tags_[expected];
  }
  for (Tag& tag : tags_) {
    if (tag.key == key) {
      return &tag;
    }
  }
  if (tags_.size() == kMostKeys) {
    return nullptr;
  }
  tags_.push_back({std::string(key), {}});
  return &tags_.back();
}

SeriesGrowth::~SeriesGrowth() { RepairInForkTeardown(mutex_, last_); }

SeriesGrowth::Fastest SeriesGrowth::Update(Metrics now) {
  const WriteGuard guard(mutex_);
  Fastest fastest;
  fastest.since_start = !called_;
  const Sizes none;
  const Sizes* before = &none;
  const Sizes* after = &none;
  for (const auto& [name, sizes] : now) {
    const auto known = last_.find(name);
    const Sizes& last = known == last_.end() ? none : known->second;
    if (Gain(sizes.series, last.series) > fastest.series) {
      fastest.series = Gain(sizes.series, last.series);
      fastest.tenant = name.first;
      fastest.metric = name.second;
      before = &last;
      after = &sizes;
    }
  }
  for (const auto& [key, values] : after->tags) {
    const auto known = before->tags.find(key);
    const uint64_t gain = Gain(values, known == before->tags.end() ? 0 : known->second);
    if (gain > fastest.values) {
      fastest.values = gain;
      fastest.tag = key;
      fastest.exact = values < DistinctCount::kKept;
    }
  }
  last_.swap(now);
  called_ = true;
  return fastest;
}

}  // namespace METRICS

#include "metrics/impl/metric_impl.h"

#include <algorithm>

#include "codec/fnv_hash.h"
#include "codec/pack.h"
#include "metrics/metric.h"
#include "metrics/metric_client.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_registry.h"
#include "util/metric_log.h"
#include "util/metric_size_limits.h"
#include "util/metric_string_util.h"

namespace METRICS {

using lattice_kit::codec::EncodeText;
using lattice_kit::codec::kFNVOffsetBasis;
using lattice_kit::codec::Pack;
using lattice_kit::codec::TagFNVHash;
using lattice_kit::codec::TagKV;

namespace {

// Work buffers by number of tags, so that their strings keep their capacity from emission to
// emission. Every use fills one anew, and the collector copies what it keeps.
thread_local std::vector<std::vector<std::string>> tag_value_pool;

// Never destroyed: a thread may still emit while the process exits.
const std::string& kMissingValue = *new std::string("-");

}  // namespace

std::shared_ptr<MetricCollectorItem> DummyItem() {
  static const std::shared_ptr<MetricCollectorItem>& item =
      *new std::shared_ptr<MetricCollectorItem>(
          std::make_shared<MetricCollectorItem>(nullptr, 0, std::string()));
  return item;
}

MetricImpl::MetricImpl(const std::string& tenant, const std::string& name, Metric* metric,
                       const std::vector<std::string>&& tag_names)
    : tenant_(tenant),
      name_(name),
      tag_names_(tag_names),
      tag_count_(static_cast<uint16_t>(tag_names.size())),
      metric_(metric),
      collector_factory_(metric->registry_->client_->collector_factory_) {
  std::sort(tag_names_.begin(), tag_names_.end());
}

MetricImpl::~MetricImpl() { DeregisterCollector(); }

ReturnCode MetricImpl::InitCollector() {
  if (state_.load() != MetricState::INIT) {
    return ReturnCode::kOk;
  }
  collector_ = collector_factory_->CreateCollector(tenant_, name_, metric_, &collector_owner_);
  if (collector_ == nullptr) {
    METRICS_LOG_WARN("Metric %s Get New Collector Fail\n", name_.c_str());
    return ReturnCode::kAllocCollectorError;
  }
  registered_.store(collector_owner_ == nullptr);
  state_.store(MetricState::READY, std::memory_order_release);
  return ReturnCode::kOk;
}

void MetricImpl::DeregisterCollector() {
  if (registered_.exchange(false)) {
    collector_factory_->RemoveCollector(tenant_, name_, collector_.get());
  }
}

MetricImpl::ItemPtr MetricImpl::GetOrCreate(const std::vector<std::string>& tag_values) {
  return collector_->GetOrCreate(tag_values);
}

ReturnCode MetricImpl::ClearCollector() {
  if (collector_ != nullptr) {
    collector_->Clear();
  }
  return ReturnCode::kOk;
}

unsigned long MetricImpl::GetSeriesCount() {
  return collector_ != nullptr ? collector_->SeriesSize() : 0;
}

unsigned long MetricImpl::GetDPCount() { return collector_ != nullptr ? collector_->DPSize() : 0; }

void MetricImpl::InitHisto(HistoUtilBase& /*histo*/) {}

void MetricImpl::InitField(const std::vector<MetricFieldCfg>&& /*fields*/) {}

ReturnCode MetricImpl::CEmit(double /*value*/, std::vector<std::string>&& /*tag_pairs*/) {
  return ReturnCode::kNotSupported;
}

MetricCoItemType MetricImpl::Type() { return MetricCoItemType::kCoItemUnknown; }

MetricImpl::ItemPtr MetricImpl::WithTags(const std::vector<tidegate::MetricTag>& tags) {
  if (RefuseMoreThanDeclared(tags.size()) || !PassStateGate()) {
    return GetDummyItem();
  }
  std::vector<std::string>& pool = PreparePool();
  const ReturnCode code = GetTagValueVec(tags, pool);
  if (code != ReturnCode::kOk) {
    METRICS_LOG_ERROR("GetTagValueVec error: %s\n", MetricGetErrorCodeStr(code));
    return GetDummyItem();
  }
  return GetOrCreate(pool);
}

MetricImpl::ItemPtr MetricImpl::WithTagValues(const std::vector<std::string>& values) {
  if (RefuseMoreThanDeclared(values.size()) || !PassStateGate()) {
    return GetDummyItem();
  }
  std::vector<std::string>& pool = PreparePool();
  std::copy(values.begin(), values.end(), pool.begin());
  return GetOrCreate(pool);
}

MetricImpl::ItemPtr MetricImpl::WithTagMap(
    const std::unordered_map<std::string, std::string>& tags) {
  if (!PassStateGate()) {
    return GetDummyItem();
  }
  std::vector<std::string>& pool = PreparePool();
  for (size_t i = 0; i < pool.size(); ++i) {
    const auto found = tags.find(tag_names_[i]);
    if (found != tags.end()) {
      pool[i] = found->second;
    }
  }
  return GetOrCreate(pool);
}

MetricImpl::ItemPtr MetricImpl::WithCompatibleTags(const std::vector<std::string>& tag_pairs) {
  return PassStateGate() ? GetOrCreate(tag_pairs) : GetDummyItem();
}

ReturnCode MetricImpl::GetTagValueVec(const std::vector<tidegate::MetricTag>& tags,
                                      std::vector<std::string>& values) {
  if (tags.size() > tag_count_) {
    return ReturnCode::kTagNumExceeded;
  }
  for (const tidegate::MetricTag& tag : tags) {
    if (!IsValidValue(tag.value)) {
      METRICS_LOG_CODE(ReturnCode::kInvalidString);
      return ReturnCode::kInvalidString;
    }
  }
  for (size_t i = 0; i < tags.size(); ++i) {
    const tidegate::MetricTag& tag = tags[i];
    if (tag_names_[i] == tag.key) {  // tags in sorted order never search
      values[i] = tag.value;
      continue;
    }
    const auto found = std::find(tag_names_.begin(), tag_names_.end(), tag.key);
    if (found == tag_names_.end()) {
      METRICS_LOG_CODE(ReturnCode::kUnknownTagName);
      return ReturnCode::kUnknownTagName;
    }
    values[static_cast<size_t>(found - tag_names_.begin())] = tag.value;
  }
  return ReturnCode::kOk;
}

MetricImpl::ItemPtr MetricImpl::GetDummyItem() { return GetMetricDummyItem(metric_); }

MetricImpl::ItemPtr MetricImpl::GetMetricDummyItem(Metric* metric) {
  metric->emit_fail_.fetch_add(1, std::memory_order_relaxed);
  return DummyItem();
}

bool MetricImpl::PassStateGate() const {
  const MetricState state = state_.load(std::memory_order_acquire);
  if (state == MetricState::READY) {
    return true;
  }
  if (state != MetricState::INIT) {
    METRICS_LOG_WARN("Metric state[0:INIT, 1:READY, 2:BLOCKED, 3:SHUTDOWN] error: %d\n",
                     static_cast<int>(state));
  }
  return false;
}

bool MetricImpl::RefuseMoreThanDeclared(size_t count) const {
  if (count <= tag_count_) {
    return false;
  }
  METRICS_LOG_ERROR("Tags num greater then declared tag num, num: %lu, declared: %d\n", count,
                    static_cast<int>(tag_count_));
  return true;
}

std::vector<std::string>& MetricImpl::PreparePool() const {
  std::vector<std::vector<std::string>>& pools = tag_value_pool;
  if (pools.size() <= tag_count_) {
    pools.resize(tag_count_ + size_t{1});
  }
  std::vector<std::string>& pool = pools[tag_count_];
  pool.assign(tag_count_, kMissingValue);
  return pool;
}

void MetricImpl::PrepareSendTagKV(const std::vector<tidegate::MetricTag>& const_tags) {
  send_tags_.clear();
  send_tags_.reserve(tag_names_.size() + const_tags.size());
  for (const std::string& name : tag_names_) {
    send_tags_.emplace_back(name, std::string());
  }
  for (const tidegate::MetricTag& tag : const_tags) {
    send_tags_.emplace_back(tag.key, tag.value);
  }
  std::sort(send_tags_.begin(), send_tags_.end());
}

void MetricImpl::PrepareTagIdx() {
  tag_index_.reserve(tag_count_);
  for (const std::string& name : tag_names_) {
    const auto found = std::find_if(send_tags_.begin(), send_tags_.end(),
                                    [&name](const TagKV& tag) { return tag.key == name; });
    if (found != send_tags_.end()) {
      tag_index_.push_back(static_cast<uint16_t>(found - send_tags_.begin()));
    }
  }
}

std::string MetricImpl::EncodeTagBlock(const std::vector<std::string>& tag_values,
                                       int32_t& tag_hash) const {
  const size_t declared = tag_values.size() == tag_index_.size() ? tag_values.size() : 0;
  const bool compute_hash = tag_hash == 0;
  Pack out(kTagScratchBytes);
  out.Put(tag_hash);
  out.Put(static_cast<uint32_t>(2 * send_tags_.size()));
  uint32_t hash = kFNVOffsetBasis;
  size_t next = 0;  // both lists are sorted by key, so the indexes ascend
  for (size_t i = 0; i < send_tags_.size(); ++i) {
    const bool is_declared = next < declared && tag_index_[next] == i;
    const std::string& key = send_tags_[i].key;
    const std::string& value = is_declared ? tag_values[next++] : send_tags_[i].value;
    EncodeText(key, out);
    EncodeText(value, out);
    if (compute_hash) {
      hash = TagFNVHash(key, value, hash);
    }
  }
  if (compute_hash) {
    tag_hash = static_cast<int32_t>(hash);
    out.Patch(0, tag_hash);
  }
  return out.Bytes();
}

SuffixedMetricImpl::~SuffixedMetricImpl() = default;

void SuffixedMetricImpl::InitHisto(HistoUtilBase& histo) { TakeBounds(histo.bounds); }

bool SuffixedMetricImpl::TakeBounds(const std::vector<double>& bounds) {
  if (bounds.empty()) {
    return true;
  }
  if (bounds_taken_.exchange(true)) {
    return false;
  }
  bounds_ = bounds;
  bounds_ready_.store(true, std::memory_order_release);
  return true;
}

const std::vector<double>& SuffixedMetricImpl::Bounds() const {
  return bounds_ready_.load(std::memory_order_acquire) ? bounds_ : Metric::NoopHistogram();
}

}  // namespace METRICS

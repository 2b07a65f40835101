#include "metrics/impl/metric_impl.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

#include "codec/tag_kv.h"
#include "metrics/client_parts.h"
#include "metrics/histo_util.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/registry_parts.h"
#include "metrics/series_items.h"
#include "metrics/tag_value_refs.h"
#include "util/log_scope.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"
#include "util/short_text.h"
#include "util/thread_end.h"

namespace METRICS {

using lattice_kit::codec::TagKV;

namespace {

// The values of a series that is not known yet. Every use fills it anew, and the collector copies
// what it keeps.
__thread std::vector<std::string>* tag_value_pool = nullptr;
__thread ThreadEndAction pool_at_end;

/// The pool of this thread; null at its very end, when its last destructors may still emit.
std::vector<std::string>* TagValuePool() {
  if (tag_value_pool == nullptr) {
    auto made = std::make_unique<std::vector<std::string>>();
    const auto drop = [] { delete std::exchange(tag_value_pool, nullptr); };
    if (AtThreadEnd(pool_at_end, drop)) {
      tag_value_pool = made.release();
    }
  }
  return tag_value_pool;
}

// An array of its own, which no text of a caller is part of.
constexpr char kMissing[] = "-";
constexpr std::string_view kMissingValue(kMissing, 1);

bool IsMissing(std::string_view value) { return value.data() == kMissing; }

/// The tags of a call that are nowhere a list.
class TagViews {
 public:
  TagViews(const tidegate::TagView* tags, size_t count) : tags_(tags), count_(count) {}
  size_t size() const { return count_; }
  const tidegate::TagView& operator[](size_t index) const { return tags_[index]; }
  const tidegate::TagView* begin() const { return tags_; }
  const tidegate::TagView* end() const { return tags_ + count_; }

 private:
  const tidegate::TagView* const tags_;
  const size_t count_;
};

std::string_view KeyOf(const tidegate::MetricTag& tag) { return tag.key; }
std::string_view KeyOf(const tidegate::TagView& tag) { return tag.Key(); }
std::string_view ValueOf(const tidegate::MetricTag& tag) { return tag.value; }
std::string_view ValueOf(const tidegate::TagView& tag) { return tag.Value(); }

ReturnCode EmitOn(MetricCollectorItem& item, const MetricFieldValue* values, size_t count) {
  return count == 1 ? item.Emit(*values)
                    : item.Emit(std::vector<MetricFieldValue>(values, values + count));
}

/// The two parts of a full name, told apart.
std::string PrefixAndName(const MetricParts& metric) {
  const std::shared_ptr<RegistryParts> registry = metric.PinRegistry();
  const std::string prefix = registry == nullptr ? std::string() : registry->prefix_;
  const size_t start = prefix.empty() ? 0 : prefix.size() + 1;
  return "[" + prefix + "][" + metric.name_.substr(start) + "]";
}

}  // namespace

MetricImpl::MetricImpl(const std::string& tenant, const std::string& name, MetricParts* metric,
                       const std::vector<std::string>&& tag_names)
    : ImplParts(tenant, name, metric, tag_names),
      collector_factory_(metric->registry_parts_->client_->collector_factory_) {}

MetricImpl::~MetricImpl() {
  if (joined_.exchange(false)) {
    collector_factory_->Leave(*this, *collector_);
  }
}

ReturnCode MetricImpl::InitCollector() {
  if (state_.load() != MetricState::INIT) {
    return ReturnCode::kOk;
  }
  MetricCollectorFactory::Membership membership = collector_factory_->Join(*this);
  collector_ = std::move(membership.collector);
  if (collector_ == nullptr) {
    METRICS_LOG_WARN("Metric %s Get New Collector Fail\n", name_.c_str());
    return ReturnCode::kAllocCollectorError;
  }
  joined_.store(true);
  if (membership.owner != nullptr) {
    TellNamesakes(*membership.owner, membership.shared);
  }
  if (membership.shared) {
    owner_registry_ = std::move(membership.owner_registry);
    collector_owner_ = std::move(membership.owner);
  }
  state_.store(MetricState::READY, std::memory_order_release);
  return ReturnCode::kOk;
}

void MetricImpl::TellNamesakes(const MetricParts& other, bool shared) const {
  METRICS_LOG_WARN("Metric tenant[%s] %s has the full name of %s: %s\n", tenant_.c_str(),
                   PrefixAndName(*metric_).c_str(), PrefixAndName(other).c_str(),
                   shared ? "they share their series" : "its emissions are refused");
}

TakenEntries MetricImpl::TakeSeries() {
  return collector_ == nullptr || collector_factory_->OthersInService(*this, *collector_)
             ? NoEntries()
             : collector_->TakeAll();
}

TakenEntries MetricImpl::LeaveCollector() {
  return joined_.exchange(false) && collector_factory_->Leave(*this, *collector_)
             ? collector_->TakeAll()
             : NoEntries();
}

MetricImpl::ItemPtr MetricImpl::GetOrCreate(const std::vector<std::string>& tag_values) {
  return OrDummy(collector_->GetOrCreate(tag_values));
}

MetricImpl::ItemPtr MetricImpl::OrDummy(ItemPtr item) {
  if (item != nullptr) {
    return item;
  }
  if (collector_->standby_.load(std::memory_order_relaxed) && !told_refusal_.exchange(true)) {
    METRICS_LOG_ERROR("Metric tenant[%s] %s: refused, another metric has its full name\n",
                      tenant_.c_str(), PrefixAndName(*metric_).c_str());
  }
  return GetDummyItem();
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

MetricImpl::ItemPtr MetricImpl::FindOrCreate(const TagValueRefs& values) {
  ItemPtr item = collector_->Find(values);
  if (item == nullptr) {
    item = CopyAndGet(values);
  }
  return item;
}

MetricImpl::ItemPtr MetricImpl::CopyAndGet(const TagValueRefs& values) {
  if (collector_->max_series_ != 0) {
    if (ItemPtr overflow = collector_->FindOverflow(values)) {
      return overflow;
    }
  }
  const LogScope lines;  // a sink that emits uses the pool
  std::vector<std::string> own;
  std::vector<std::string>* const shared = TagValuePool();
  std::vector<std::string>& pool = shared != nullptr ? *shared : own;
  pool.resize(values.size());
  for (size_t i = 0; i < pool.size(); ++i) {
    pool[i] = values[i];
  }
  return OrDummy(collector_->GetOrCreateOf(pool, values));
}

template <class Tags>
[[gnu::always_inline]] inline MetricImpl::ItemPtr MetricImpl::WithTags(const Tags& tags) {
  if (RefuseMoreThanDeclared(tags.size()) || !PassStateGate()) {
    return GetDummyItem();
  }
  TagValueRefs values(tag_count_);
  const bool placed = Place(tags, values) == Placing::kDone;
  return FindPlaced(tags, placed, values);
}

template <class Tags>
[[gnu::always_inline]] inline MetricImpl::ItemPtr MetricImpl::FindPlaced(const Tags& tags,
                                                                         bool placed,
                                                                         TagValueRefs& values) {
  ItemPtr item;
  if (placed) {
    item = collector_->Find(values);
    // Values that are equal to valid ones are valid.
    if (item != nullptr && item->tags_valid_.load(std::memory_order_relaxed)) {
      return item;
    }
  }
  const ReturnCode code = placed ? Validate(tags) : Resolve(tags, values);
  if (code != ReturnCode::kOk) {
    METRICS_LOG_ERROR("GetTagValueVec error: %s\n", MetricGetErrorCodeStr(code));
    return GetDummyItem();
  }
  if (item == nullptr) {
    item = CopyAndGet(values);
  }
  // Not the dummy item, which stands for any values. A store of what is there already would take
  // the line from other threads.
  if (item->metric_ != nullptr && !item->tags_valid_.load(std::memory_order_relaxed)) {
    item->tags_valid_.store(true, std::memory_order_relaxed);
  }
  return item;
}

template <class Tags>
[[gnu::always_inline]] inline ReturnCode MetricImpl::Emit(const Tags& tags,
                                                          const MetricFieldValue* values,
                                                          size_t count) {
  if (RefuseMoreThanDeclared(tags.size()) || !PassStateGate()) {
    return EmitOn(*GetDummyItem(), values, count);
  }
  TagValueRefs tag_values(tag_count_);
  const bool placed = Place(tags, tag_values) == Placing::kDone;
  if (placed && collector_->EmitToKnown(tag_values, values, count)) {
    return ReturnCode::kOk;
  }
  return EmitOn(*FindPlaced(tags, placed, tag_values), values, count);
}

[[gnu::always_inline]] inline MetricImpl::ItemPtr MetricImpl::WithTagValues(
    const std::vector<std::string>& values) {
  if (RefuseMoreThanDeclared(values.size()) || !PassStateGate()) {
    return GetDummyItem();
  }
  if (values.size() == tag_count_) {
    return GetOrCreate(values);
  }
  TagValueRefs refs(tag_count_);
  for (size_t i = 0; i < values.size(); ++i) {
    refs.Set(i, values[i]);
  }
  refs.SetFrom(values.size(), kMissingValue);
  return FindOrCreate(refs);
}

[[gnu::always_inline]] inline MetricImpl::ItemPtr MetricImpl::WithTagMap(
    const std::unordered_map<std::string, std::string>& tags) {
  if (!PassStateGate()) {
    return GetDummyItem();
  }
  TagValueRefs values(tag_count_);
  for (size_t i = 0; i < tag_count_; ++i) {
    const auto found = tags.find(tag_names_[i]);
    values.Set(i, found != tags.end() ? std::string_view(found->second) : kMissingValue);
  }
  return FindOrCreate(values);
}

std::shared_ptr<MetricCollectorItem> FindByTags(MetricImpl& impl,
                                                const std::vector<tidegate::MetricTag>& tags) {
  return impl.WithTags(tags);
}

std::shared_ptr<MetricCollectorItem> FindByViews(MetricImpl& impl, const tidegate::TagView* tags,
                                                 size_t count) {
  return impl.WithTags(TagViews(tags, count));
}

ReturnCode EmitByTags(MetricImpl& impl, const std::vector<tidegate::MetricTag>& tags,
                      const MetricFieldValue* values, size_t count) {
  return impl.Emit(tags, values, count);
}

ReturnCode EmitByViews(MetricImpl& impl, const tidegate::TagView* tags, size_t tag_count,
                       const MetricFieldValue* values, size_t count) {
  return impl.Emit(TagViews(tags, tag_count), values, count);
}

std::shared_ptr<MetricCollectorItem> FindByValues(MetricImpl& impl,
                                                  const std::vector<std::string>& values) {
  return impl.WithTagValues(values);
}

std::shared_ptr<MetricCollectorItem> FindByMap(
    MetricImpl& impl, const std::unordered_map<std::string, std::string>& tags) {
  return impl.WithTagMap(tags);
}

MetricImpl::ItemPtr MetricImpl::WithCompatibleTags(const std::vector<std::string>& tag_pairs) {
  return PassStateGate() ? GetOrCreate(tag_pairs) : GetDummyItem();
}

ReturnCode MetricImpl::GetTagValueVec(const std::vector<tidegate::MetricTag>& tags,
                                      std::vector<std::string>& values) {
  TagValueRefs refs(tag_count_);
  const ReturnCode code = Resolve(tags, refs);
  for (size_t i = 0; code == ReturnCode::kOk && i < refs.size(); ++i) {
    if (!IsMissing(refs[i])) {
      values[i] = refs[i];
    }
  }
  return code;
}

template <class Tags>
ReturnCode MetricImpl::Validate(const Tags& tags) const {
  if (tags.size() > tag_count_) {
    return ReturnCode::kTagNumExceeded;
  }
  for (const auto& tag : tags) {
    if (!IsValidValue(ValueOf(tag))) {
      METRICS_LOG_CODE(ReturnCode::kInvalidString);
      return ReturnCode::kInvalidString;
    }
  }
  return ReturnCode::kOk;
}

template <class Tags>
ReturnCode MetricImpl::Resolve(const Tags& tags, TagValueRefs& values) const {
  const ReturnCode code = Validate(tags);
  if (code != ReturnCode::kOk) {
    return code;
  }
  if (Place(tags, values) == Placing::kUnknownKey) {
    METRICS_LOG_CODE(ReturnCode::kUnknownTagName);
    return ReturnCode::kUnknownTagName;
  }
  return ReturnCode::kOk;
}

template <class Tags>
[[gnu::always_inline]] inline MetricImpl::Placing MetricImpl::Place(const Tags& tags,
                                                                    TagValueRefs& values) const {
  size_t i = 0;  // tags in sorted order never search
  for (; i < tags.size() && SameText(tag_names_[i], KeyOf(tags[i])); ++i) {
    values.Set(i, ValueOf(tags[i]));
  }
  return i == tag_count_ ? Placing::kDone : PlaceRest(tags, i, values);
}

template <class Tags>
MetricImpl::Placing MetricImpl::PlaceRest(const Tags& tags, size_t first,
                                          TagValueRefs& values) const {
  values.SetFrom(first, kMissingValue);
  bool repeated = false;
  // Where there are gaps between sorted tags, a tag comes after the one before.
  size_t next = first;
  for (size_t i = first; i < tags.size(); ++i) {
    size_t left = tag_count_;
    for (; left > 0 && !SameText(tag_names_[next], KeyOf(tags[i])); --left) {
      next = next + 1 < tag_count_ ? next + 1 : 0;
    }
    if (left == 0) {
      return Placing::kUnknownKey;
    }
    repeated = repeated || !IsMissing(values[next]);
    values.Set(next, ValueOf(tags[i]));
    next = next + 1 < tag_count_ ? next + 1 : 0;
  }
  return repeated ? Placing::kRepeatedKey : Placing::kDone;
}

MetricImpl::ItemPtr MetricImpl::GetDummyItem() { return GetMetricDummyItem(metric_); }

MetricImpl::ItemPtr MetricImpl::GetMetricDummyItem(MetricParts* metric) {
  return CountedDummyItem(*metric);
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
  send_tag_bytes_ = 0;
  for (const TagKV& tag : send_tags_) {
    send_tag_bytes_ += tag.key.size() + tag.value.size();
  }
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
  PrepareTagBlock();
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

}  // namespace METRICS

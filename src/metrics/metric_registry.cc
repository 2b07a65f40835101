#include "metrics/metric_registry.h"

#include <algorithm>
#include <set>
#include <utility>

#include "metrics/cell_kinds.h"
#include "metrics/client_parts.h"
#include "metrics/global_resources_limit.h"
#include "metrics/impl/metric_impl.h"
#include "metrics/metric_histogram.h"
#include "metrics/registry_table.h"
#include "metrics/removed.h"
#include "util/fork_guard.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"
#include "util/metric_tag_util.h"

namespace METRICS {
namespace {

constexpr size_t kMaxTagNames = 255;
constexpr uint16_t kMaxColumns = 1024;

/// Whether a registry of `metrics` metrics is full.
bool IsFull(size_t metrics) {
  const uint64_t global =
      __atomic_load_n(&GetGlobalResourcesLimit().max_metrics_per_registry, __ATOMIC_RELAXED);
  const int limit = global != 0 ? static_cast<int>(global) : GetRegistryMetricLimit();
  return metrics >= static_cast<size_t>(limit);
}

void CheckFields(const std::vector<MetricFieldCfg>& fields, MetricRegistry::Refusal& refusal) {
  size_t columns = 0;
  ReturnCode code = ReturnCode::kOk;
  for (const MetricFieldCfg& field : fields) {
    if (!IsValidKey(field.name)) {
      code = ReturnCode::kInvalidString;
    } else if (!IsCellType(field.type)) {
      code = ReturnCode::kInvalidMetricType;
    } else if (field.histo != nullptr && !CheckBounds(*field.histo)) {
      code = ReturnCode::kMaxHistoBucket;
    }
    if (code != ReturnCode::kOk) {
      refusal = {code, true, "field [" + field.name + "]"};
      return;
    }
    if (field.histo == nullptr && field.type == MetricsType::kHistogram) {
      METRICS_LOG_WARN("Histogram Type has No config, ingored.\n");
      continue;
    }
    columns += KindOf(field.type).Numbers(field.histo != nullptr ? field.histo->bounds.size() : 0);
  }
  // The low 16 bits are what counts.
  if (static_cast<uint16_t>(columns) > kMaxColumns) {
    refusal = {ReturnCode::kFieldNumExceeded, true, {}};
  }
}

}  // namespace

MetricRegistry::MetricRegistry(const std::string& tenant, const std::string& prefix,
                               ClientParts* client, int flush_interval)
    : RegistryParts(tenant, prefix, client, flush_interval) {
  state_.exchange(MetricState::READY);
}

MetricRegistry::~MetricRegistry() {
  state_.store(MetricState::SHUTDOWN, std::memory_order_relaxed);
}

ReturnCode MetricRegistry::CreateMetric(Metric*& metric, const MetricInstanceCfg& cfg) {
  const MetricCoItemType kind =
      cfg.fields.empty() ? MetricCoItemType::kCoItemSuffix : MetricCoItemType::kCoItemField;
  return CreateMetric(metric, MetricInitCfg{kind, cfg});
}

ReturnCode MetricRegistry::CreateMetric(Metric*& metric, std::string name,
                                        std::vector<std::string>&& tag_names,
                                        HistoUtilBase* histo) {
  MetricInstanceCfg cfg;
  cfg.name = std::move(name);
  cfg.tag_names = std::move(tag_names);
  cfg.histo = histo;
  return CreateMetric(metric, MetricInitCfg{MetricCoItemType::kCoItemSuffix, std::move(cfg)});
}

ReturnCode MetricRegistry::CreateMetric(Metric*& metric, MetricInitCfg init) {
  Refusal refusal;
  metric = Make(std::move(init), refusal);
  if (refusal.code == ReturnCode::kInternalError ||
      refusal.code == ReturnCode::kAllocCollectorError) {
    METRICS_LOG_WARN("Error when metric init: %s\n", MetricGetErrorCodeStr(refusal.code));
  } else if (refusal.code != ReturnCode::kOk) {
    if (refusal.of_fields) {
      METRICS_LOG_CODE(refusal.code);
    }
    METRICS_LOG_CODE(refusal.code);
  }
  return refusal.code;
}

Metric* MetricRegistry::Make(MetricInitCfg init, Refusal& refusal) {
  MetricInstanceCfg& cfg = init.cfg;
  CheckDefinition(cfg, refusal);
  if (refusal.code != ReturnCode::kOk) {
    return nullptr;
  }
  const std::string full_name = prefix_.empty() ? cfg.name : prefix_ + "." + cfg.name;
  std::shared_ptr<Metric> made;
  const WriteGuard guard(table_->rwlock_);
  if (table_->metrics_.count(cfg.name) != 0) {
    refusal.code = ReturnCode::kObjectExisted;
    return nullptr;
  }
  made = std::make_shared<Metric>(full_name, this, init.kind);
  made->max_series_ = cfg.max_series;
  if (cfg.max_series != 0) {
    made->emit_overflow_.Spread(EventCounter::kSpreadLines);
  }
  refusal.code = made->Init(std::move(cfg.tag_names), std::move(cfg.const_tags),
                            std::move(cfg.fields), cfg.histo);
  if (refusal.code != ReturnCode::kOk) {
    return nullptr;
  }
  if (state_.load() != MetricState::READY) {
    refusal.code = ReturnCode::kObjectBlocked;
  } else if (IsFull(table_->metrics_.size())) {
    refusal.code = ReturnCode::kMaxMetric;
  }
  if (refusal.code != ReturnCode::kOk) {
    // A flush may hold the metric for a while; its collector goes at once.
    made->impl_->LeaveCollector();
    return nullptr;
  }
  Metric* const metric = made.get();
  table_->metrics_.emplace(cfg.name, std::move(made));
  METRICS_LOG_DEBUG("Create new metric tenant[%s] metric_name[%s.%s]\n", tenant_.c_str(),
                    prefix_.c_str(), cfg.name.c_str());
  return metric;
}

void MetricRegistry::CheckDefinition(const MetricInstanceCfg& cfg, Refusal& refusal) const {
  if (!IsValidKey(cfg.name)) {
    refusal = {ReturnCode::kInvalidString, false, "the name"};
    return;
  }
  if (cfg.tag_names.size() > kMaxTagNames) {
    refusal.code = ReturnCode::kMaxTagPair;
    return;
  }
  if (!CheckDuplicatedString(cfg.tag_names)) {
    refusal.code = ReturnCode::kDuplicatedTagName;
    return;
  }
  const std::vector<tidegate::MetricTag> inserted = InsertedTags();
  for (const std::string& name : cfg.tag_names) {
    const bool valid = IsValidKey(name);
    if (!valid || !CheckWithInsertedTags(name, inserted)) {
      refusal = {valid ? ReturnCode::kTagConflict : ReturnCode::kInvalidString, false,
                 "tag name [" + name + "]"};
      return;
    }
  }
  CheckConstTags(cfg, inserted, refusal);
  if (refusal.code != ReturnCode::kOk) {
    return;
  }
  if (cfg.histo != nullptr && !CheckBounds(*cfg.histo)) {
    refusal = {ReturnCode::kMaxHistoBucket, false, cfg.histo->Reason()};
    return;
  }
  CheckFields(cfg.fields, refusal);
}

void MetricRegistry::CheckConstTags(const MetricInstanceCfg& cfg,
                                    const std::vector<tidegate::MetricTag>& inserted,
                                    Refusal& refusal) {
  for (const tidegate::MetricTag& tag : cfg.const_tags) {
    const bool valid = IsValidTag(tag);
    const bool declared =
        std::find(cfg.tag_names.begin(), cfg.tag_names.end(), tag.key) != cfg.tag_names.end();
    if (!valid || declared || !CheckWithInsertedTags(tag.key, inserted)) {
      refusal = {valid ? ReturnCode::kTagConflict : ReturnCode::kInvalidString, false,
                 "tag [" + tag.key + "]"};
      return;
    }
  }
  if (!CheckDuplicatedString(KeysOf(cfg.const_tags))) {
    refusal.code = ReturnCode::kDuplicatedTagName;
  }
}

ReturnCode MetricRegistry::GetMetric(Metric*& metric, std::string name) {
  const ReadGuard guard(table_->rwlock_);
  const auto found = table_->metrics_.find(name);
  metric = found == table_->metrics_.end() ? nullptr : found->second.get();
  return metric == nullptr ? ReturnCode::kObjectNotExisted : ReturnCode::kOk;
}

void MetricRegistry::Retire(const std::shared_ptr<Metric>& metric, Removed& removed) {
  removed.metrics.push_back(metric);
  removed.series.push_back(NoEntries());
  // Its tag names stay: a thread of the library may be past the state gate and read them.
  metric->impl_->state_.store(MetricState::SHUTDOWN, std::memory_order_relaxed);
  removed.series.back() = metric->impl_->LeaveCollector();
}

ReturnCode MetricRegistry::RemoveMetric(std::string name) {
  Removed removed;  // dies after the guard
  const WriteGuard guard(table_->rwlock_);
  const auto found = table_->metrics_.find(name);
  if (found == table_->metrics_.end()) {
    return ReturnCode::kObjectNotExisted;
  }
  Retire(found->second, removed);
  table_->metrics_.erase(found);
  METRICS_LOG_WARN("Metric Remove: tenant[%s] %s.%s\n", tenant_.c_str(), prefix_.c_str(),
                   name.c_str());
  return ReturnCode::kOk;
}

std::vector<std::string> MetricRegistry::GetAllMetricNames() const {
  std::vector<std::string> names;
  const ReadGuard guard(table_->rwlock_);
  names.reserve(table_->metrics_.size());
  for (const auto& [name, metric] : table_->metrics_) {
    names.push_back(name);
  }
  return names;
}

std::vector<std::shared_ptr<Metric>> MetricRegistry::GetAllMetric() const {
  std::vector<std::shared_ptr<Metric>> metrics;
  const ReadGuard guard(table_->rwlock_);
  metrics.reserve(table_->metrics_.size());
  for (const auto& [name, metric] : table_->metrics_) {
    metrics.push_back(metric);
  }
  return metrics;
}

ReturnCode MetricRegistry::Block() {
  Removed removed;
  return Block(removed);
}

ReturnCode MetricRegistry::Block(Removed& removed) {
  const WriteGuard guard(table_->rwlock_);
  removed.series.reserve(removed.series.size() + table_->metrics_.size());
  state_.exchange(MetricState::BLOCKED);
  METRICS_LOG_DEBUG("Block MetricRegistry tenant[%s], prefix[%s], metric size[%ld]\n",
                    tenant_.c_str(), prefix_.c_str(), static_cast<long>(table_->metrics_.size()));
  for (const auto& [name, metric] : table_->metrics_) {
    metric->impl_->state_.store(MetricState::BLOCKED, std::memory_order_relaxed);
    removed.series.push_back(metric->impl_->TakeSeries());
  }
  return ReturnCode::kOk;
}

ReturnCode MetricRegistry::UnBlock() {
  const WriteGuard guard(table_->rwlock_);
  state_.exchange(MetricState::READY);
  METRICS_LOG_DEBUG("UnBlock MetricRegistry tenant[%s], prefix[%s], metric size[%ld]\n",
                    tenant_.c_str(), prefix_.c_str(), static_cast<long>(table_->metrics_.size()));
  for (const auto& [name, metric] : table_->metrics_) {
    metric->impl_->state_.store(MetricState::READY, std::memory_order_release);
  }
  return ReturnCode::kOk;
}

ReturnCode MetricRegistry::Clear() {
  Removed removed;
  return Clear(removed);
}

ReturnCode MetricRegistry::Clear(Removed& removed) {
  const WriteGuard guard(table_->rwlock_);
  state_.exchange(MetricState::SHUTDOWN);
  METRICS_LOG_DEBUG("MetricRegistry Clear tenant[%s], prefix[%s], metric size[%ld]\n",
                    tenant_.c_str(), prefix_.c_str(), static_cast<long>(table_->metrics_.size()));
  for (const auto& [name, metric] : table_->metrics_) {
    Retire(metric, removed);
  }
  table_->metrics_.clear();
  return ReturnCode::kOk;
}

void MetricRegistry::AtFork() {
  const WriteGuard guard(table_->rwlock_);
  state_.exchange(MetricState::SHUTDOWN);
  table_->metrics_.clear();
}

void MetricRegistry::RepairAfterFork() METRICS_NO_THREAD_SAFETY {
  RepairGuarded(table_->rwlock_, table_->metrics_, table_->tags_);
}

void MetricRegistry::WarnOfTags(const std::vector<tidegate::MetricTag>& tags) const {
  for (const tidegate::MetricTag& tag : tags) {
    if (!IsValidTag(tag)) {
      METRICS_LOG_WARN("Illegal tag of the vendor on registry[%s.%s]: key[%s] value[%s]\n",
                       tenant_.c_str(), prefix_.c_str(), tag.key.c_str(), tag.value.c_str());
    }
  }
}

void MetricRegistry::WarnOfInterval(int tenant_interval) {
  if (tenant_interval > 0 && flush_interval_ % tenant_interval != 0 &&
      !interval_told_.exchange(true)) {
    METRICS_LOG_WARN("Interval[%ds] of registry[%s.%s] is no multiple of its tenant's[%ds]\n",
                     flush_interval_, tenant_.c_str(), prefix_.c_str(), tenant_interval);
  }
}

void MetricRegistry::GenrateTagsOnRegistry(const std::vector<tidegate::MetricTag>&& global_tags,
                                           tidegate::VendorInterface* vendor) {
  WarnOfTags(vendor->ImmutableTags());
  WarnOfTags(vendor->RewritableTags());
  std::vector<tidegate::MetricTag> merged;
  MergeTags(global_tags, vendor->RewritableTags(), merged);
  std::vector<tidegate::MetricTag> tags;
  MergeTags(vendor->ImmutableTags(), merged, tags);
  std::sort(tags.begin(), tags.end());
  const WriteGuard guard(table_->rwlock_);
  table_->tags_.swap(tags);
}

void MetricRegistry::MergeTags(const std::vector<tidegate::MetricTag>& first,
                               const std::vector<tidegate::MetricTag>& second,
                               std::vector<tidegate::MetricTag>& out) {
  out.insert(out.end(), first.begin(), first.end());
  std::set<std::string> keys;
  for (const tidegate::MetricTag& tag : first) {
    keys.insert(tag.key);
  }
  for (const tidegate::MetricTag& tag : second) {
    if (keys.count(tag.key) == 0) {
      out.push_back(tag);
    }
  }
}

ReturnCode CheckMetricFieldCfg(const std::vector<MetricFieldCfg>& fields) {
  MetricRegistry::Refusal refusal;
  CheckFields(fields, refusal);
  if (refusal.code != ReturnCode::kOk) {
    METRICS_LOG_CODE(refusal.code);
  }
  return refusal.code;
}

}  // namespace METRICS

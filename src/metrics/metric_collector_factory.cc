#include "metrics/metric_collector_factory.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "metrics/impl_parts.h"
#include "metrics/metric_kdtree_collector.h"
#include "metrics/metric_parts.h"
#include "metrics/registry_parts.h"
#include "util/fork_guard.h"
#include "util/metric_log.h"

namespace METRICS {
namespace {

bool IsReady(const ImplParts& impl) {
  return impl.state_.load(std::memory_order_acquire) == MetricState::READY;
}

bool AnyInService(const std::vector<const ImplParts*>& members) {
  return std::any_of(members.begin(), members.end(),
                     [](const ImplParts* member) { return IsReady(*member); });
}

/// Whether the look-ups of `metric` have as many values as the series of `owner`. Those of
/// compatible metrics have any number.
bool FitsInto(const MetricParts& metric, const MetricParts& owner) {
  constexpr MetricCoItemType kAny = MetricCoItemType::kCoItemCompatible;
  return (metric.kind_ == kAny) == (owner.kind_ == kAny) &&
         (metric.kind_ == kAny || metric.impl_parts_->tag_count_ == owner.impl_parts_->tag_count_);
}

}  // namespace

/// Keeps metrics and registries alive while a list of collectors is made. To be released without
/// the factory's lock: the last pin of a metric destroys it, and its destructor takes that lock.
struct MetricCollectorFactory::Pins {
  std::vector<std::shared_ptr<MetricParts>> metrics;
  std::vector<std::shared_ptr<RegistryParts>> registries;
};

MetricCollectorFactory::MetricCollectorFactory(ClientParts* client, const unsigned long& max_series)
    : CollectorFactoryParts{{}, client, max_series} {
  state_.exchange(MetricState::READY);
}

MetricCollectorFactory::~MetricCollectorFactory() {
  state_.store(MetricState::SHUTDOWN, std::memory_order_relaxed);
  Clear();
  client_ = nullptr;
  METRICS_LOG_DEBUG("MetricCollectorFactory Destructor.\n");
}

CollectorPtr MetricCollectorFactory::CreateCollector(const std::string& tenant,
                                                     const std::string& name, MetricParts* metric) {
  assert(!metric->weak_from_this().expired());
  if (state_.load(std::memory_order_relaxed) != MetricState::READY) {
    return nullptr;
  }
  // These die after the guard: a metric that goes takes the lock.
  CollectorPtr replaced;
  Membership membership;
  const WriteGuard guard(rwlock_);
  NameMap& names = NamesOf(tenant);
  membership = FindStanding(names, name, replaced);
  return membership.collector != nullptr ? membership.collector : Put(names, name, metric);
}

MetricCollectorFactory::Membership MetricCollectorFactory::Join(const ImplParts& member) {
  Membership membership;
  if (state_.load(std::memory_order_relaxed) != MetricState::READY) {
    return membership;
  }
  CollectorPtr replaced;  // as in `CreateCollector`
  MetricParts& metric = *member.metric_;
  const WriteGuard guard(rwlock_);
  NameMap& names = NamesOf(member.tenant_);
  membership = FindStanding(names, member.name_, replaced);
  if (membership.collector == nullptr) {
    membership.collector = Put(names, member.name_, &metric);
  } else if (FitsInto(metric, *membership.owner)) {
    Members& members = members_[membership.collector.get()];
    if (members.empty()) {
      members.push_back(membership.owner->impl_parts_);
    }
    members.push_back(&member);
    membership.shared = true;
  } else {
    membership.collector = NewCollector(&metric);
    membership.collector->standby_.store(true, std::memory_order_relaxed);
    waiting_.push_back({&member, membership.collector});
  }
  return membership;
}

bool MetricCollectorFactory::Leave(const ImplParts& member, const MetricCollectorBase& collector) {
  // These die after the guard.
  CollectorPtr removed;
  CollectorPtr waited;
  const WriteGuard guard(rwlock_);
  const auto waiting =
      std::find_if(waiting_.begin(), waiting_.end(),
                   [&](const Waiting& candidate) { return candidate.member == &member; });
  if (waiting != waiting_.end()) {
    waited = std::move(waiting->collector);
    waiting_.erase(waiting);
    return true;
  }
  const auto shared = members_.find(&collector);
  if (shared != members_.end()) {
    Members& members = shared->second;
    members.erase(std::remove(members.begin(), members.end(), &member), members.end());
    if (!members.empty()) {
      const bool serving = AnyInService(members);
      if (members.size() == 1 && members[0]->metric_ == collector.metric_) {
        members_.erase(shared);
      }
      return !serving;
    }
    members_.erase(shared);
  }
  if (Remove(member.tenant_, member.name_, &collector, removed) == ReturnCode::kOk) {
    PromoteWaiting(member);
  }
  return true;
}

bool MetricCollectorFactory::OthersInService(const ImplParts& member,
                                             const MetricCollectorBase& collector) {
  // For writing, so that of two members that are blocked at a time the second sees the first.
  const WriteGuard guard(rwlock_);
  const auto shared = members_.find(&collector);
  if (shared == members_.end()) {
    return false;
  }
  return std::any_of(shared->second.begin(), shared->second.end(),
                     [&](const ImplParts* other) { return other != &member && IsReady(*other); });
}

MetricCollectorFactory::NameMap& MetricCollectorFactory::NamesOf(const std::string& tenant) {
  const auto [names, new_tenant] = tenants_.try_emplace(tenant);
  if (new_tenant) {
    METRICS_LOG_DEBUG("Create Tenant Collector: %s\n", tenant.c_str());
  }
  return names->second;
}

MetricCollectorFactory::Membership MetricCollectorFactory::FindStanding(NameMap& names,
                                                                        const std::string& name,
                                                                        CollectorPtr& replaced) {
  Membership membership;
  const auto found = names.find(name);
  if (found == names.end()) {
    return membership;
  }
  membership.owner = found->second->PinMetric();
  if (membership.owner != nullptr) {
    membership.owner_registry = membership.owner->PinRegistry();
    membership.collector = found->second;
    return membership;
  }
  replaced = std::move(found->second);
  names.erase(found);
  --total_collectors_;
  return membership;
}

CollectorPtr MetricCollectorFactory::NewCollector(MetricParts* metric) {
  CollectorPtr collector;
  if (collector_kind_ != 0) {
    collector = std::make_shared<KDTreeCollector>(this, metric);
  } else {
    collector = std::make_shared<HashMapCollector>(this, metric);
  }
  collector->Init();
  return collector;
}

CollectorPtr MetricCollectorFactory::Put(NameMap& names, const std::string& name,
                                         MetricParts* metric) {
  CollectorPtr collector = NewCollector(metric);
  names.emplace(name, collector);
  ++total_collectors_;
  METRICS_LOG_DEBUG(
      "Create Metric Collector: %s, collector "
      "type[0:unknown,1:suffix,2:fileds,3:compatible]: %d\n",
      name.c_str(), static_cast<int>(metric->kind_));
  return collector;
}

ReturnCode MetricCollectorFactory::RemoveCollector(const std::string& tenant,
                                                   const std::string& name) {
  CollectorPtr removed;  // dies after the guard
  const WriteGuard guard(rwlock_);
  const ReturnCode code = Remove(tenant, name, nullptr, removed);
  if (code != ReturnCode::kOk) {
    METRICS_LOG_CODE(code);
  }
  return code;
}

ReturnCode MetricCollectorFactory::Remove(const std::string& tenant, const std::string& name,
                                          const MetricCollectorBase* own, CollectorPtr& removed) {
  const auto names = tenants_.find(tenant);
  if (names == tenants_.end()) {
    return ReturnCode::kObjectNotExisted;
  }
  const auto found = names->second.find(name);
  if (found == names->second.end() || (own != nullptr && found->second.get() != own)) {
    return ReturnCode::kObjectNotExisted;
  }
  METRICS_LOG_DEBUG(
      "Remove Collector, tenant[%s] metric[%s] Before remove: TotalCollectorCount[%d] "
      "TotalSeriesCount[%lu]\n",
      tenant.c_str(), name.c_str(), total_collectors_, total_series_.load());
  removed = std::move(found->second);
  names->second.erase(found);
  --total_collectors_;
  METRICS_LOG_DEBUG("After remove: TotalCollectorCount[%d] TotalSeriesCount[%lu]\n",
                    total_collectors_, total_series_.load());
  return ReturnCode::kOk;
}

void MetricCollectorFactory::PromoteWaiting(const ImplParts& member) {
  const auto next = std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& candidate) {
    return candidate.member->tenant_ == member.tenant_ && candidate.member->name_ == member.name_;
  });
  if (next == waiting_.end()) {
    return;
  }
  NamesOf(member.tenant_).emplace(member.name_, next->collector);
  ++total_collectors_;
  next->collector->standby_.store(false, std::memory_order_release);
  waiting_.erase(next);
}

CollectorList MetricCollectorFactory::GetAll() const {
  CollectorList all;
  const ReadGuard guard(rwlock_);
  all.reserve(static_cast<size_t>(total_collectors_));
  for (const auto& [tenant, names] : tenants_) {
    for (const auto& [name, collector] : names) {
      all.push_back(collector);
    }
  }
  return all;
}

bool MetricCollectorFactory::CheckMetricStatus(const CollectorPtr& collector) const {
  if (collector == nullptr) {
    return false;
  }
  const std::shared_ptr<MetricParts> metric = collector->PinMetric();
  const ReadGuard guard(rwlock_);
  return InService(*collector, metric);
}

bool MetricCollectorFactory::InService(const MetricCollectorBase& collector,
                                       const std::shared_ptr<MetricParts>& metric) const {
  if (metric == nullptr || IsReady(*metric->impl_parts_)) {
    return metric != nullptr;
  }
  const auto shared = members_.find(&collector);
  return shared != members_.end() && AnyInService(shared->second);
}

CollectorList MetricCollectorFactory::GetTenantCollector(const std::string& tenant) const {
  CollectorList list;
  ForEachInService(tenant,
                   [&list](const CollectorPtr& collector, int) { list.push_back(collector); });
  return list;
}

template <class Visit>
void MetricCollectorFactory::ForEachInService(const std::string& tenant, Visit visit) const {
  Pins pins;
  const ReadGuard guard(rwlock_);
  const auto names = tenants_.find(tenant);
  if (names == tenants_.end()) {
    return;
  }
  for (const auto& [name, collector] : names->second) {
    pins.metrics.push_back(collector->PinMetric());
    const std::shared_ptr<MetricParts>& metric = pins.metrics.back();
    if (!InService(*collector, metric)) {
      continue;
    }
    pins.registries.push_back(metric->PinRegistry());
    const std::shared_ptr<RegistryParts>& registry = pins.registries.back();
    if (registry != nullptr) {
      visit(collector, registry->flush_interval_);
    }
  }
}

CollectorList MetricCollectorFactory::GetTenantSendCollector(const std::string& tenant,
                                                             int base_interval, long now) const {
  CollectorList due;
  ForEachInService(tenant, [&](const CollectorPtr& collector, int interval) {
    if (interval <= base_interval || now % interval == 0) {
      due.push_back(collector);
    }
  });
  return due;
}

std::unordered_map<int64_t, CollectorList> MetricCollectorFactory::GatherForFlush(
    const std::string& tenant, int base_interval, long now) const {
  std::unordered_map<int64_t, CollectorList> by_second;
  ForEachInService(tenant, [&](const CollectorPtr& collector, int interval) {
    const int64_t next =
        interval <= base_interval ? now + base_interval : now + interval - now % interval;
    by_second[next].push_back(collector);
  });
  return by_second;
}

std::map<std::string, unsigned long> MetricCollectorFactory::GetCollectorSeriesMap() const {
  std::map<std::string, unsigned long> series;
  const ReadGuard guard(rwlock_);
  for (const auto& [tenant, names] : tenants_) {
    for (const auto& [name, collector] : names) {
      series.emplace(name, collector->SeriesSize());
    }
  }
  return series;
}

void MetricCollectorFactory::DropAll() {
  tenants_.clear();
  waiting_.clear();
  total_collectors_ = 0;
}

void MetricCollectorFactory::Clear() {
  const WriteGuard guard(rwlock_);
  METRICS_LOG_WARN("MetricCollectorFactory Clear. TotalSeriesCount before Clear: %lu\n",
                   total_series_.load());
  DropAll();
  METRICS_LOG_WARN("TotalSeriesCount after Clear: %lu\n", total_series_.load());
}

void MetricCollectorFactory::AtFork() {
  const WriteGuard guard(rwlock_);
  state_.store(MetricState::SHUTDOWN, std::memory_order_relaxed);
  METRICS_LOG_WARN("MetricCollectorFactory AtFork. TotalSeriesCount before Clear: %lu\n",
                   total_series_.load());
  DropAll();
  METRICS_LOG_WARN("TotalSeriesCount after AtFork: %lu\n", total_series_.load());
}

void MetricCollectorFactory::RepairAfterFork() {
  RepairGuarded(rwlock_, tenants_, members_, waiting_);
}

}  // namespace METRICS

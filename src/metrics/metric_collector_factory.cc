#include "metrics/metric_collector_factory.h"

#include <utility>

#include "metrics/metric.h"
#include "metrics/metric_kdtree_collector.h"
#include "metrics/metric_registry.h"
#include "util/fork_guard.h"
#include "util/metric_log.h"

namespace METRICS {
namespace {

bool InService(const std::shared_ptr<Metric>& metric) {
  return metric != nullptr &&
         metric->impl_->state_.load(std::memory_order_acquire) == MetricState::READY;
}

}  // namespace

/// Keeps metrics and registries alive while a list of collectors is made. To be released without
/// the factory's lock: the last pin of a metric destroys it, and its destructor takes that lock.
struct MetricCollectorFactory::Pins {
  std::vector<std::shared_ptr<Metric>> metrics;
  std::vector<std::shared_ptr<MetricRegistry>> registries;
};

MetricCollectorFactory::MetricCollectorFactory(MetricClient* client,
                                               const unsigned long& max_series)
    : client_(client), max_series_(max_series) {
  state_.exchange(MetricState::READY);
}

MetricCollectorFactory::~MetricCollectorFactory() {
  state_.store(MetricState::SHUTDOWN, std::memory_order_relaxed);
  Clear();
  client_ = nullptr;
  METRICS_LOG_DEBUG("MetricCollectorFactory Destructor.\n");
}

CollectorPtr MetricCollectorFactory::CreateCollector(const std::string& tenant,
                                                     const std::string& name, Metric* metric,
                                                     std::shared_ptr<Metric>* owner) {
  if (state_.load(std::memory_order_relaxed) != MetricState::READY) {
    return nullptr;
  }
  // These die behind the guard: a metric that goes takes the lock.
  CollectorPtr replaced;
  std::shared_ptr<Metric> pin;
  const WriteGuard guard(rwlock_);
  const auto [names, new_tenant] = tenants_.try_emplace(tenant);
  if (new_tenant) {
    METRICS_LOG_DEBUG("Create Tenant Collector: %s\n", tenant.c_str());
  }
  const auto found = names->second.find(name);
  if (found != names->second.end()) {
    pin = found->second->PinMetric();
    if (pin != nullptr) {
      if (owner != nullptr) {
        *owner = pin;
      }
      return found->second;
    }
    // Its metric is being destroyed and will look for it in vain.
    replaced = std::move(found->second);
    names->second.erase(found);
    --total_collectors_;
  }
  CollectorPtr collector;
  if (collector_kind_ != 0) {
    collector = std::make_shared<KDTreeCollector>(this, metric);
  } else {
    collector = std::make_shared<HashMapCollector>(this, metric);
  }
  collector->Init();
  names->second.emplace(name, collector);
  ++total_collectors_;
  METRICS_LOG_DEBUG(
      "Create Metric Collector: %s, collector "
      "type[0:unknown,1:suffix,2:fileds,3:compatible]: %d\n",
      name.c_str(), static_cast<int>(metric->kind_));
  return collector;
}

ReturnCode MetricCollectorFactory::RemoveCollector(const std::string& tenant,
                                                   const std::string& name) {
  CollectorPtr removed;  // dies behind the guard
  const WriteGuard guard(rwlock_);
  const ReturnCode code = Remove(tenant, name, nullptr, removed);
  if (code != ReturnCode::kOk) {
    METRICS_LOG_CODE(code);
  }
  return code;
}

ReturnCode MetricCollectorFactory::RemoveCollector(const std::string& tenant,
                                                   const std::string& name,
                                                   const MetricCollectorBase* own) {
  CollectorPtr removed;  // dies behind the guard
  const WriteGuard guard(rwlock_);
  return Remove(tenant, name, own, removed);
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
  return collector != nullptr && InService(collector->PinMetric());
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
    const std::shared_ptr<Metric>& metric = pins.metrics.back();
    if (!InService(metric)) {
      continue;
    }
    pins.registries.push_back(metric->PinRegistry());
    const std::shared_ptr<MetricRegistry>& registry = pins.registries.back();
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
  if (rwlock_.ReinitAfterFork()) {
    Abandon(tenants_);
  }
}

}  // namespace METRICS

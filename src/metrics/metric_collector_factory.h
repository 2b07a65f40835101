#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/metric_collector.h"
#include "util/logging_lock.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"

namespace METRICS {

class ImplParts;
class RegistryParts;

using CollectorPtr = std::shared_ptr<MetricCollectorBase>;
using CollectorList = std::vector<CollectorPtr>;

/// All collectors of a client by tenant and metric name, and the count of series over all of them
/// with its quota.
///
/// Threads: all operations from any thread; one reader-writer lock, which emissions never take.
/// Shared by the client, the metrics and the senders. The lists that it hands out hold collectors
/// only: a metric or registry that ends meanwhile is found out by pinning it again.
class MetricCollectorFactory : public CollectorFactoryParts {
 public:
  /// `max_series` is the quota of series over all collectors.
  MetricCollectorFactory(ClientParts* client, const unsigned long& max_series);
  ~MetricCollectorFactory();
  MetricCollectorFactory(const MetricCollectorFactory&) = delete;
  MetricCollectorFactory& operator=(const MetricCollectorFactory&) = delete;

  /// The collector that stands under `tenant` and `name`, made for `metric` if there is none;
  /// null once the factory is shut down. REQUIRES: `metric` is owned by a shared pointer.
  CollectorPtr CreateCollector(const std::string& tenant, const std::string& name,
                               MetricParts* metric);
  /// Takes a collector out; it dies with its last holder. `kObjectNotExisted` when unknown.
  ReturnCode RemoveCollector(const std::string& tenant, const std::string& name);

  /// What a metric gets. `owner` is the metric of the same full name that was there before it, if
  /// there is one.
  struct Membership {
    CollectorPtr collector;  ///< null once the factory is shut down
    /// It is the one of `owner`, which has as many tags. The series point at `owner`, so whoever
    /// emits on them keeps it, and its registry too, which the flush asks.
    bool shared = false;
    std::shared_ptr<RegistryParts> owner_registry;
    std::shared_ptr<MetricParts> owner;
  };
  /// As `CreateCollector` for the metric of `member`, which is a member of what it gets until it
  /// leaves. A metric whose look-ups would not fit a collector that stands there gets one on
  /// standby, which replaces that one once all its members have left.
  Membership Join(const ImplParts& member);
  /// The last member takes the collector out. False when another one is in service, which needs the
  /// series.
  bool Leave(const ImplParts& member, const MetricCollectorBase& collector);
  /// Whether another member of `collector` than `member` is in service.
  bool OthersInService(const ImplParts& member, const MetricCollectorBase& collector);

  /// All collectors of all tenants.
  CollectorList GetAll() const;
  /// The collectors of `tenant` whose metric is in service.
  CollectorList GetTenantCollector(const std::string& tenant) const;
  /// Whether the collector's metric exists and is in service.
  bool CheckMetricStatus(const CollectorPtr& collector) const;
  /// The collectors of `tenant` that are due at second `now`: those whose registry's flush
  /// interval is at most `base_interval` seconds or divides `now`.
  CollectorList GetTenantSendCollector(const std::string& tenant, int base_interval,
                                       long now) const;
  /// All collectors of `tenant` in service by the second of their next flush after `now`.
  std::unordered_map<int64_t, CollectorList> GatherForFlush(const std::string& tenant,
                                                            int base_interval, long now) const;
  /// Series by metric name, over all tenants; of equal names one is kept.
  std::map<std::string, unsigned long> GetCollectorSeriesMap() const;

  void Clear();
  /// For the child of a fork: shuts down and forgets all collectors.
  void AtFork();
  /// In a forked child, before everything else: makes the lock anew, and forgets the table
  /// without walking it if a thread of the parent was changing it.
  void RepairAfterFork() METRICS_NO_THREAD_SAFETY;

  using NameMap = std::unordered_map<std::string, CollectorPtr>;
  std::unordered_map<std::string, NameMap> tenants_ METRICS_GUARDED_BY(rwlock_);
  /// 0: new collectors are `HashMapCollector`s, else `KDTreeCollector`s. Nothing sets it.
  uint32_t collector_kind_ = 0;
  int32_t total_collectors_ METRICS_GUARDED_BY(rwlock_) = 0;
  std::atomic<MetricState> state_{MetricState::INIT};

 private:
  using Members = std::vector<const ImplParts*>;
  struct Pins;
  struct Waiting {
    const ImplParts* member;
    CollectorPtr collector;
  };

  /// Calls `visit(collector, flush interval)` for each collector of `tenant` in service, under
  /// the read lock.
  template <class Visit>
  void ForEachInService(const std::string& tenant, Visit visit) const;
  bool InService(const MetricCollectorBase& collector,
                 const std::shared_ptr<MetricParts>& metric) const METRICS_REQUIRES_SHARED(rwlock_);
  NameMap& NamesOf(const std::string& tenant) METRICS_REQUIRES(rwlock_);
  /// The collector under `name`, with its metric and registry pinned, or none. One whose metric is
  /// being destroyed, and will look for it in vain, goes to `replaced`.
  Membership FindStanding(NameMap& names, const std::string& name, CollectorPtr& replaced)
      METRICS_REQUIRES(rwlock_);
  CollectorPtr NewCollector(MetricParts* metric);
  CollectorPtr Put(NameMap& names, const std::string& name, MetricParts* metric)
      METRICS_REQUIRES(rwlock_);
  ReturnCode Remove(const std::string& tenant, const std::string& name,
                    const MetricCollectorBase* own, CollectorPtr& removed)
      METRICS_REQUIRES(rwlock_);
  /// Gives the name of `member` to the first collector that waits for it.
  void PromoteWaiting(const ImplParts& member) METRICS_REQUIRES(rwlock_);
  void DropAll() METRICS_REQUIRES(rwlock_);

  mutable LoggingRwLock rwlock_;
  /// The members of the collectors that have had more than one, the one that they were made for
  /// included as long as it has not left.
  std::unordered_map<const MetricCollectorBase*, Members> members_ METRICS_GUARDED_BY(rwlock_);
  std::vector<Waiting> waiting_ METRICS_GUARDED_BY(rwlock_);
};

}  // namespace METRICS

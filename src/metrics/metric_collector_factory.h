#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/metric_collector.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_lock.h"

namespace METRICS {

class Metric;
class MetricClient;

using CollectorPtr = std::shared_ptr<MetricCollectorBase>;
using CollectorList = std::vector<CollectorPtr>;

/// All collectors of a client by tenant and metric name, and the count of series over all of them
/// with its quota.
///
/// Threads: all operations from any thread; one reader-writer lock, which emissions never take.
/// Shared by the client, the metrics and the senders. The lists that it hands out hold collectors
/// only: a metric or registry that ends meanwhile is found out by pinning it again.
class MetricCollectorFactory {
 public:
  /// `max_series` is the quota of series over all collectors.
  MetricCollectorFactory(MetricClient* client, const unsigned long& max_series);
  ~MetricCollectorFactory();
  MetricCollectorFactory(const MetricCollectorFactory&) = delete;
  MetricCollectorFactory& operator=(const MetricCollectorFactory&) = delete;

  /// The collector that stands under `tenant` and `name`, made for `metric` if there is none;
  /// null once the factory is shut down. One that was made for another metric of the same full
  /// name comes with that metric in `owner`, which whoever emits on it must keep: the series point
  /// at it. REQUIRES: `metric` is owned by a shared pointer.
  CollectorPtr CreateCollector(const std::string& tenant, const std::string& name, Metric* metric,
                               std::shared_ptr<Metric>* owner = nullptr);

  /// Takes a collector out; it dies with its last holder. `kObjectNotExisted` when unknown.
  ReturnCode RemoveCollector(const std::string& tenant, const std::string& name);
  /// As above, but only if the collector is `own`, and without a line when it is not there.
  ReturnCode RemoveCollector(const std::string& tenant, const std::string& name,
                             const MetricCollectorBase* own);

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
  /// In a forked child, ahead of everything else: makes the lock anew, and forgets the table
  /// without walking it if a thread of the parent was changing it.
  void RepairAfterFork() METRICS_NO_THREAD_SAFETY;

  std::atomic<unsigned long> total_series_{0};  ///< changed by the collectors' tables
  MetricClient* client_;                        ///< not owned
  const unsigned long max_series_;              ///< the quota
  using NameMap = std::unordered_map<std::string, CollectorPtr>;
  std::unordered_map<std::string, NameMap> tenants_ METRICS_GUARDED_BY(rwlock_);
  /// 0: new collectors are `HashMapCollector`s, else `KDTreeCollector`s. Nothing sets it.
  uint32_t collector_kind_ = 0;
  int32_t total_collectors_ METRICS_GUARDED_BY(rwlock_) = 0;
  std::atomic<MetricState> state_{MetricState::INIT};

 private:
  struct Pins;

  /// Calls `visit(collector, flush interval)` for each collector of `tenant` in service, under
  /// the read lock.
  template <class Visit>
  void ForEachInService(const std::string& tenant, Visit visit) const;
  ReturnCode Remove(const std::string& tenant, const std::string& name,
                    const MetricCollectorBase* own, CollectorPtr& removed)
      METRICS_REQUIRES(rwlock_);
  void DropAll() METRICS_REQUIRES(rwlock_);

  mutable RwLock rwlock_;
};

}  // namespace METRICS

#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "metrics/metric_registry.h"
#include "tidegate/metric_tag.h"
#include "tidegate/vendor_interface.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

struct ClientParts;

/// The table of registries by tenant and prefix, at most 512.
///
/// The key is tenant, dot, prefix; two pairs that give one key name one registry. Threads: all
/// operations from any thread, under one reader-writer lock. Owned by the client; callers' raw
/// pointers are good until the registry is removed or the client ends.
class METRICS_API MetricFactory {
 public:
  /// The most registries of a client.
  static constexpr size_t kMaxRegistries = 512;

  /// For the library: applications find the factory of their client in `metric_factory_`.
  explicit MetricFactory(ClientParts* client);
  ~MetricFactory();
  MetricFactory(const MetricFactory&) = delete;
  MetricFactory& operator=(const MetricFactory&) = delete;

  /// Makes a registry and, with the first one of a tenant, the tenant's sender. `registry` is null
  /// unless the result is 0. Refusals: 19 exists, 35 more than 255 tags, 53 bad tenant, prefix or
  /// tag, 51 duplicated tag key, 70 interval below 1, 33 table full, 17 no thread for the sender.
  /// Where it throws `std::bad_alloc`, nothing is left of the registry either.
  ReturnCode CreateRegistry(MetricRegistry*& registry, std::string prefix,
                            const std::vector<tidegate::MetricTag>&& tags, std::string tenant,
                            tidegate::VendorInterface* vendor, int flush_interval,
                            MetricSenderType sender_type);
  /// The same with the client's vendor, flush interval and sender type.
  ReturnCode CreateRegistry(MetricRegistry*& registry, std::string prefix,
                            const std::vector<tidegate::MetricTag>&& tags, std::string tenant);
  /// The same with the client's vendor and sender type.
  ReturnCode CreateRegistry(MetricRegistry*& registry, std::string prefix,
                            const std::vector<tidegate::MetricTag>&& tags, std::string tenant,
                            int flush_interval);
  /// The same with all that `cfg` says.
  ReturnCode CreateRegistry(MetricRegistry*& registry, MetricRegistryCfg cfg);

  /// Finds a registry and makes none. 20 and null when there is none.
  ReturnCode GetRegistry(MetricRegistry*& registry, std::string prefix, std::string tenant);
  /// Clears the registry and drops it; the tenant's sender stays. 20 when there is none.
  ReturnCode RemoveRegistry(std::string prefix, std::string tenant);
  /// These two take the tenant first. 20 when there is no such registry.
  ReturnCode Block(const std::string& tenant, const std::string& prefix);
  ReturnCode UnBlock(const std::string& tenant, const std::string& prefix);  ///< takes them again

  /// The keys, and the registries in the same order.
  std::vector<std::string> GetAllRegistryNames() const;
  std::vector<std::shared_ptr<MetricRegistry>> GetAllRegistry() const;  ///< in the same order

  /// Clears and drops all registries.
  void Clear();
  /// For the child of a fork: shuts down and forgets all registries.
  void AtFork();
  /// In a forked child, before everything else: see `MetricCollectorFactory::RepairAfterFork`.
  void RepairAfterFork();

  ClientParts* client_;                                ///< not owned
  std::atomic<MetricState> state_{MetricState::INIT};  ///< SHUTDOWN: makes none any more

 private:
  struct Table;

  static ReturnCode CheckDefinition(const std::string& prefix,
                                    const std::vector<tidegate::MetricTag>& tags,
                                    const std::string& tenant, int flush_interval);
  ReturnCode Insert(const std::shared_ptr<MetricRegistry>& registry, const std::string& key);

  const std::unique_ptr<Table> table_;
};

}  // namespace METRICS

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tidegate/metric_tag.h"
#include "util/metric_common.h"
#include "util/metric_export.h"

namespace METRICS {

struct ClientParts;
struct RegistryTable;

/// The part of a registry that metrics, collectors and the flush need: all of `MetricRegistry` but
/// its table of metrics.
class METRICS_API RegistryParts : public std::enable_shared_from_this<RegistryParts> {
 public:
  /// `flush_interval` is in seconds.
  RegistryParts(const std::string& tenant, const std::string& prefix, ClientParts* client,
                int flush_interval);
  RegistryParts(const RegistryParts&) = delete;
  RegistryParts& operator=(const RegistryParts&) = delete;

  /// The owner of the data.
  const std::string& Tenant() const { return tenant_; }
  /// The first part of the names of its metrics; may be empty.
  const std::string& Prefix() const { return prefix_; }
  /// A copy of the tags that metrics inherit, sorted by key.
  std::vector<tidegate::MetricTag> InsertedTags() const;
  /// The same for those who hold the registry's lock, as `CreateMetric` does around `Metric::Init`.
  const std::vector<tidegate::MetricTag>& InsertedTagsLocked() const;
  /// In seconds.
  int FlushInterval() const { return flush_interval_; }

  const std::string tenant_;                           ///< see `Tenant`
  const std::string prefix_;                           ///< see `Prefix`
  ClientParts* const client_;                          ///< not owned
  const int32_t flush_interval_;                       ///< seconds
  std::atomic<MetricState> state_{MetricState::INIT};  ///< takes new metrics while it is READY

 protected:
  ~RegistryParts();

  const std::unique_ptr<RegistryTable> table_;  ///< metrics by name, and their lock
};

}  // namespace METRICS

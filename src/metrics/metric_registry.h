#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "metrics/histo_util.h"
#include "metrics/metric.h"
#include "metrics/registry_parts.h"
#include "tidegate/metric_tag.h"
#include "tidegate/vendor_interface.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

struct Removed;

/// Describes a registry.
struct MetricRegistryCfg {
  std::string prefix;                     ///< first part of the metric names; may be empty
  std::vector<tidegate::MetricTag> tags;  ///< carried by all metrics; at most 255
  std::string tenant;                     ///< owner of the data, selects the sender; not empty
  tidegate::VendorInterface* vendor = nullptr;  ///< borrowed for the call; null: the client's
  int32_t flush_interval = 30;  ///< seconds: 1, 5, 10, 15, 30 or 60; other positive ones become 30
  /// Counts for the first registry of a tenant only; see there why it is to stay as it is.
  MetricSenderType sender_type = MetricSenderType::kSenderUnixDomain;
};

/// Describes a metric.
struct MetricInstanceCfg {
  std::string name;                    ///< without the registry's prefix; unique in the registry
  std::vector<std::string> tag_names;  ///< their values come with each emission; at most 255
  std::vector<tidegate::MetricTag> const_tags;  ///< tags with fixed values
  std::vector<MetricFieldCfg> fields;           ///< not empty: a row of fields per series
  HistoUtilBase* histo = nullptr;               ///< histogram bounds; only read by the call
  /// The most series that it has, 0: as many as the client's quota allows. Beyond it new tag values
  /// go to one overflow series, all of whose declared tags are `other`. That one does not count
  /// here, but in the quota. Bound handles stay at the series that they were bound to.
  uint64_t max_series = 0;
};

/// A named group of metrics under one tenant and prefix, with the tags and the flush interval that
/// they share.
///
/// Threads: all operations from any thread, under one reader-writer lock. Owned by the factory;
/// the caller's pointer is good until the registry is removed or the client ends.
class METRICS_API MetricRegistry : public RegistryParts {
 public:
  /// A metric and its form.
  struct MetricInitCfg {
    MetricCoItemType kind = MetricCoItemType::kCoItemUnknown;  ///< the form
    MetricInstanceCfg cfg;                                     ///< all else
  };

  /// For the library: applications get registries from `MetricClient::CreateRegistry`.
  MetricRegistry(const std::string& tenant, const std::string& prefix, ClientParts* client,
                 int flush_interval);
  ~MetricRegistry();

  /// Makes a metric after checking its whole definition; nothing changes when it is refused, and
  /// `metric` is null then. In the order of the checks: 53 bad name, 35 more than 255 tag names, 51
  /// a tag name twice, 53 or 49 a tag name that is bad or inherited, 53, 49 or 51 a constant tag
  /// that is bad, inherited or declared, or twice, 36 bounds, 53, 52, 36 or 38 fields, 19 exists,
  /// 82 or 17 no implementation or collector, 22 registry not in service, 34 registry full.
  ReturnCode CreateMetric(Metric*& metric, MetricInitCfg init);
  /// A suffixed metric, or one with a row of fields if the definition names any.
  ReturnCode CreateMetric(Metric*& metric, const MetricInstanceCfg& cfg);
  /// A suffixed metric without constant tags; `histo`, which is only read, may be null.
  ReturnCode CreateMetric(Metric*& metric, std::string name, std::vector<std::string>&& tag_names,
                          HistoUtilBase* histo);
  /// The metric `name`; 20 and null when there is none.
  ReturnCode GetMetric(Metric*& metric, std::string name);
  /// Drops the metric with its series and what they had not flushed. The caller must have stopped
  /// emitting on it. 20 when there is none.
  ReturnCode RemoveMetric(std::string name);

  /// The names, without the prefix and in no order.
  std::vector<std::string> GetAllMetricNames() const;
  /// The metrics, in the same order; the pointers keep them alive after their removal.
  std::vector<std::shared_ptr<Metric>> GetAllMetric() const;

  /// Refuses emissions and drops all series until `UnBlock`; the metrics stay. Always 0.
  ReturnCode Block();
  /// Takes emissions again, on series that are made anew. Always 0.
  ReturnCode UnBlock();
  /// Removes all metrics. Until `UnBlock` none can be made: that is refused with 22. Always 0.
  ReturnCode Clear();
  // The same for the factory, which holds its own lock: what dies goes to `removed`.
  ReturnCode Block(Removed& removed);  ///< see `Block`
  ReturnCode Clear(Removed& removed);  ///< see `Clear`
  /// For the child of a fork: forgets all metrics.
  void AtFork();
  /// In a forked child, before everything else: see `MetricCollectorFactory::RepairAfterFork`.
  void RepairAfterFork();

  /// Merges the tags that metrics inherit: the vendor's immutable ones go before `global_tags`,
  /// and those before the vendor's rewritable ones. Warns of illegal ones of the vendor.
  void GenrateTagsOnRegistry(const std::vector<tidegate::MetricTag>&& global_tags,
                             tidegate::VendorInterface* vendor);
  /// Appends to `out` all of `first` and those of `second` whose key `first` lacks.
  static void MergeTags(const std::vector<tidegate::MetricTag>& first,
                        const std::vector<tidegate::MetricTag>& second,
                        std::vector<tidegate::MetricTag>& out);

  /// Why a metric was not made.
  struct Refusal {
    ReturnCode code = ReturnCode::kOk;  ///< why
    bool of_fields = false;             ///< whether a field is refused
    std::string subject;  ///< what of the definition is refused: a name, a tag; may be empty
  };
  /// For the facade: as `CreateMetric`, but what is refused is told by `refusal` alone, without an
  /// Error line.
  __attribute__((visibility("hidden"))) Metric* Make(MetricInitCfg init, Refusal& refusal);

  /// Says so, once, if the interval is no multiple of its tenant's: rates are wrong then. From the
  /// thread that makes the registry or the flush thread: the first to know the tenant's interval.
  void WarnOfInterval(int tenant_interval);

 private:
  __attribute__((visibility("hidden"))) void CheckDefinition(const MetricInstanceCfg& cfg,
                                                             Refusal& refusal) const;
  __attribute__((visibility("hidden"))) static void CheckConstTags(
      const MetricInstanceCfg& cfg, const std::vector<tidegate::MetricTag>& inserted,
      Refusal& refusal);
  void WarnOfTags(const std::vector<tidegate::MetricTag>& tags) const;
  /// Done for each metric that is removed, before it leaves the table. Its parts go to `removed`,
  /// which dies without any lock.
  static void Retire(const std::shared_ptr<Metric>& metric, Removed& removed);

  std::atomic<bool> interval_told_{false};
};

/// Checks field declarations: 53 for a name, 52 for a type, 36 for bounds, 38 for more than 1024
/// columns in all.
METRICS_API ReturnCode CheckMetricFieldCfg(const std::vector<MetricFieldCfg>& fields);

/// Limit of metrics per registry from the environment variable METRICS_MAX_METRICS_PER_REGISTRY,
/// which is read once; 1024 if it does not hold a positive number.
METRICS_API inline int GetRegistryMetricLimit() {
  constexpr int kDefaultLimit = 1024;
  static const int from_environment = [] {
    const char* const text = std::getenv("METRICS_MAX_METRICS_PER_REGISTRY");
    return text == nullptr ? 0 : static_cast<int>(std::strtol(text, nullptr, 10));
  }();
  return from_environment > 0 ? from_environment : kDefaultLimit;
}

}  // namespace METRICS

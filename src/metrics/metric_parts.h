#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "tidegate/metric_tag.h"
#include "tidegate/tag_view.h"
#include "util/event_counter.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

class HistoUtilBase;
class ImplParts;
class MetricCollectorItem;
class MetricImpl;
class RegistryParts;
struct MetricFieldInfo;
struct MetricFieldValue;

/// One declared field of a metric that carries a row of fields.
struct MetricFieldCfg {
  std::string name;                          ///< differs from the others of the row
  MetricsType type = MetricsType::kUnknown;  ///< its kind
  HistoUtilBase* histo = nullptr;            ///< bounds of a histogram field; only read by the call
};

// The look-ups of a metric's implementation, whose class is the library's. Applications call
// `Metric::With...` and `Metric::Emit`, which pass the call on. Any thread; never null.
METRICS_API std::shared_ptr<MetricCollectorItem> FindByTags(
    MetricImpl& impl, const std::vector<tidegate::MetricTag>& tags);
METRICS_API std::shared_ptr<MetricCollectorItem> FindByViews(MetricImpl& impl,
                                                             const tidegate::TagView* tags,
                                                             size_t count);
METRICS_API std::shared_ptr<MetricCollectorItem> FindByValues(
    MetricImpl& impl, const std::vector<std::string>& values);
METRICS_API std::shared_ptr<MetricCollectorItem> FindByMap(
    MetricImpl& impl, const std::unordered_map<std::string, std::string>& tags);

METRICS_API ReturnCode EmitByTags(MetricImpl& impl, const std::vector<tidegate::MetricTag>& tags,
                                  const MetricFieldValue* values, size_t count);
METRICS_API ReturnCode EmitByViews(MetricImpl& impl, const tidegate::TagView* tags,
                                   size_t tag_count, const MetricFieldValue* values, size_t count);

/// The part of a metric that collectors, items and the flush need: all of `Metric` but the
/// implementation that it owns.
class METRICS_API MetricParts : public std::enable_shared_from_this<MetricParts> {
 public:
  /// REQUIRES: a shared pointer owns `registry`.
  MetricParts(const std::string& name, RegistryParts* registry, MetricCoItemType kind);
  MetricParts(const MetricParts&) = delete;
  MetricParts& operator=(const MetricParts&) = delete;

  /// The bounds, or an empty list; a list that was seen once stays as it is.
  const std::vector<double>& GetHistogram() const;
  /// The declared fields of a metric with a row of fields, or an empty list.
  const std::vector<MetricFieldInfo>& GetFieldInfo() const;
  /// The columns of that row in their packet form, or an empty string.
  const std::string& GetCodecFieldInfo() const;
  /// The registry, kept alive by the result; null when it is being destroyed.
  std::shared_ptr<RegistryParts> PinRegistry() const { return registry_ref_.lock(); }

  // For the library: what stands for what a metric does not have. Empty, never destroyed.
  static const std::vector<double>& NoopHistogram();           ///< no bounds
  static const std::vector<MetricFieldInfo>& NoopFieldInfo();  ///< no fields
  static const std::string& NoopStr();                         ///< no columns

  const std::string name_;           ///< the full name
  const uint32_t name_hash_;         ///< of the full name; seed of the hashes of its suffixes
  ImplParts* impl_parts_ = nullptr;  ///< of the implementation, set with it
  const MetricCoItemType kind_;      ///< its form
  // Set after creation by the application; read by the emission path and the flush.
  std::atomic<MetricsType> compatible_type_{MetricsType::kUnknown};  ///< of compatible ones
  std::vector<tidegate::MetricTag> tags_;         ///< the metric's own; constant after `Init`
  std::atomic<bool> multi_field_summary_{false};  ///< see `SetMultiFieldSummary`
  std::atomic<bool> use_ckms_{false};             ///< see `SetUseCkms`
  // Statistics, changed from any thread.
  EventCounter emit_success_;  ///< values (rows: emissions) since `EmitStat`
  /// Look-ups that got the overflow series: `With...`, `Emit` with tags, `CEmit`, `Bind`.
  EventCounter emit_overflow_{0};
  std::atomic<unsigned long> emit_fail_{0};     ///< failed emissions since the last `EmitStat`
  std::atomic<unsigned long> cache_mem_{0};     ///< bytes that the series occupy, an estimate
  std::atomic<unsigned long> cache_series_{0};  ///< cells made; a row counts as one
  /// The registry, not owned: pinned before use, but for the thread that makes the metric.
  RegistryParts* const registry_parts_;
  uint64_t max_series_ = 0;  ///< a limit of its own, 0 for none; constant after `Init`

 protected:
  ~MetricParts() = default;

 private:
  const std::weak_ptr<RegistryParts> registry_ref_;
};

}  // namespace METRICS

#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/histo_util.h"
#include "metrics/impl/metric_impl.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "tidegate/metric_tag.h"
#include "util/event_counter.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

class MetricRegistry;
struct MetricFieldInfo;

/// One declared field of a metric that carries a row of fields.
struct MetricFieldCfg {
  std::string name;
  MetricsType type = MetricsType::kUnknown;
  HistoUtilBase* histo = nullptr;  ///< bounds of a histogram field; only read by the call
};

/// One metric: a definition with its constant tags, its statistics and the implementation of its
/// kind. Callers emit with
///
///     metric->WithTags({{"method", "get"}})->Emit({Incr(1), WithSuffix("size", Store(512))});
///
/// Threads: `With...` and what it leads to from any thread; `Set...` between creation and the
/// first emission. Ownership: the registry's; the caller's pointer is good until the metric or
/// its registry is removed or the client ends, and the caller must have stopped emitting by then.
/// Failure: never reported by the `With...` family, which answers with the harmless dummy item
/// and counts in `emit_fail_`; `Emit` on that item answers 70.
class METRICS_API Metric : public std::enable_shared_from_this<Metric> {
 public:
  /// `name` is the full name: prefix, dot, name. REQUIRES: `registry` comes from
  /// `MetricRegistry::Make`.
  Metric(const std::string& name, MetricRegistry* registry, MetricCoItemType kind);
  ~Metric();
  Metric(const Metric&) = delete;
  Metric& operator=(const Metric&) = delete;

  /// The series of `tags`, given by name in any order; fastest in the sorted order of the declared
  /// names. A declared tag that is missing has the value "-". Values are validated.
  std::shared_ptr<MetricCollectorItem> WithTags(const std::vector<tidegate::MetricTag>& tags) {
    return impl_->WithTags(tags);
  }
  /// The series of `values`, given in the sorted order of the declared names. Not validated.
  std::shared_ptr<MetricCollectorItem> WithTagValues(const std::vector<std::string>& values) {
    return impl_->WithTagValues(values);
  }
  /// The series of `tags` by name; names that are not declared are ignored. Not validated.
  std::shared_ptr<MetricCollectorItem> WithTagMap(
      const std::unordered_map<std::string, std::string>& tags) {
    return impl_->WithTagMap(tags);
  }

  /// Sets the bounds of a metric whose suffixes hold histograms; at most once. `histo` is only
  /// read by the call. 81 without `histo`, 70 for another kind or if there are bounds already,
  /// 36 if `histo` refuses itself.
  ReturnCode SetHistogram(HistoUtilBase* histo);
  /// Emits on a compatible metric: `tag_pairs` is a flat list, key, value, key, value. 70 for
  /// another kind, when the metric is blocked and at the series quota, 35 for an odd number or more
  /// than 510 strings, 53 for a bad key or value.
  ReturnCode CEmit(double value, std::vector<std::string>&& tag_pairs);
  /// Data type of a compatible metric: a gauge, rate, counter, meter or timer. To be set before the
  /// first emission, whose series keep what they find; without it all emissions are dropped.
  void SetCompatibleType(MetricsType type) { compatible_type_.store(type); }
  /// Summaries travel as one row of fields instead of one gauge per number.
  void SetMultiFieldSummary(bool on) { multi_field_summary_.store(on); }
  /// Summaries estimate their percentiles instead of keeping all samples.
  void SetUseCkms(bool on) { use_ckms_.store(on); }

  /// Called once by the registry, which holds its lock: makes the implementation and its
  /// collector.
  ReturnCode Init(const std::vector<std::string>&& tag_names,
                  const std::vector<tidegate::MetricTag>&& const_tags,
                  const std::vector<MetricFieldCfg>&& fields, HistoUtilBase* histo);
  /// The bounds, or an empty list; a list that was seen once stays as it is.
  const std::vector<double>& GetHistogram();
  /// The declared fields of a metric with a row of fields, or an empty list.
  const std::vector<MetricFieldInfo>& GetFieldInfo() const;
  /// The columns of that row in their packet form, or an empty string.
  const std::string& GetCodecFieldInfo() const;
  /// Names of the numbers of a compatible timer.
  static const std::array<std::string, 10>& GetCompatibleFieldInfo();
  /// Reports the statistics of this metric on `stat_metric`, under the tag "metric_name".
  ReturnCode EmitStat(Metric* stat_metric);
  /// The registry, kept alive by the result; null when it is being destroyed.
  std::shared_ptr<MetricRegistry> PinRegistry() const { return registry_ref_.lock(); }

  // Empty, never destroyed.
  static const std::vector<double>& NoopHistogram();
  static const std::vector<MetricFieldInfo>& NoopFieldInfo();
  static const std::string& NoopStr();

  const std::string name_;
  const uint32_t name_hash_;  ///< of the full name; seed of the hashes of its suffixes
  MetricRegistry* registry_;  ///< not owned; to be pinned by whoever is no creator of the metric
  const MetricCoItemType kind_;
  // Set after creation by the application; read by the emission path and the flush.
  std::atomic<MetricsType> compatible_type_{MetricsType::kUnknown};
  std::vector<tidegate::MetricTag> tags_;  ///< the metric's own; constant after `Init`
  std::atomic<bool> multi_field_summary_{false};
  std::atomic<bool> use_ckms_{false};
  // Statistics, changed from any thread.
  EventCounter emit_success_;                   ///< values (rows: emissions) since `EmitStat`
  std::atomic<unsigned long> emit_fail_{0};     ///< failed emissions since the last `EmitStat`
  std::atomic<unsigned long> cache_mem_{0};     ///< bytes that the series occupy, an estimate
  std::atomic<unsigned long> cache_series_{0};  ///< cells made; a row counts as one
  std::unique_ptr<MetricImpl> impl_;            ///< made by `Init`, never replaced

 private:
  /// The implementation of this kind, or null for an unknown one.
  std::unique_ptr<MetricImpl> MakeImpl(const std::vector<std::string>&& tag_names);

  const std::weak_ptr<MetricRegistry> registry_ref_;
};

}  // namespace METRICS

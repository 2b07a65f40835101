#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/histo_util.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "metrics/metric_parts.h"
#include "tidegate/metric_tag.h"
#include "tidegate/tag_view.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

class MetricImpl;
class MetricRegistry;

/// One metric: a definition with its constant tags, its statistics and the implementation of its
/// form. Callers emit with
///
///     metric->WithTags({{"method", "get"}})->Emit({Incr(1), WithSuffix("size", Store(512))});
///
/// Threads: `With...` and what it leads to from any thread; `Set...` between creation and the
/// first emission. Ownership: the registry's; the caller's pointer is good until the metric or
/// its registry is removed or the client ends, and the caller must have stopped emitting by then.
/// Failure: never reported by the `With...` family, which answers with the harmless dummy item
/// and counts in `emit_fail_`; `Emit` on that item answers 70. Limit: beyond a `max_series` of its
/// definition new tag values get the item of the overflow series, which `emit_overflow_` counts.
class METRICS_API Metric : public MetricParts {
 public:
  /// `name` is the full name: prefix, dot, name. REQUIRES: a shared pointer owns `registry`.
  Metric(const std::string& name, MetricRegistry* registry, MetricCoItemType kind);
  ~Metric();

  /// The series of `tags`, given by name in any order; fastest in the sorted order of the declared
  /// names. A declared tag that is missing has the value "-". Values are validated.
  std::shared_ptr<MetricCollectorItem> WithTags(const std::vector<tidegate::MetricTag>& tags) {
    return FindByTags(*impl_, tags);
  }
  /// The same of texts and numbers, without a list or a copy of them: what braces in a call mean.
  std::shared_ptr<MetricCollectorItem> WithTags(std::initializer_list<tidegate::TagView> tags) {
    return FindByViews(*impl_, tags.begin(), tags.size());
  }
  /// The series of `values`, given in the sorted order of the declared names. Not validated.
  std::shared_ptr<MetricCollectorItem> WithTagValues(const std::vector<std::string>& values) {
    return FindByValues(*impl_, values);
  }
  /// The series of `tags` by name; names that are not declared are ignored. Not validated.
  std::shared_ptr<MetricCollectorItem> WithTagMap(
      const std::unordered_map<std::string, std::string>& tags) {
    return FindByMap(*impl_, tags);
  }

  /// `WithTags(tags)->Emit(value)` in one call, with the same codes, counts and lines: what costs
  /// least where the tags differ from call to call. A series that is there is found and added to in
  /// one step, and no count of its owners is touched. A timer or histogram, a new series or suffix,
  /// and one that wakes, take the two steps.
  ReturnCode Emit(const std::vector<tidegate::MetricTag>& tags, const MetricFieldValue& value) {
    return EmitByTags(*impl_, tags, &value, 1);
  }
  /// The same of texts and numbers, without a list.
  ReturnCode Emit(std::initializer_list<tidegate::TagView> tags, const MetricFieldValue& value) {
    return EmitByViews(*impl_, tags.begin(), tags.size(), &value, 1);
  }
  /// The same with several values, as `WithTags(tags)->Emit({...})`.
  ReturnCode Emit(const std::vector<tidegate::MetricTag>& tags,
                  std::initializer_list<MetricFieldValue> values) {
    return EmitByTags(*impl_, tags, values.begin(), values.size());
  }
  /// The same of texts and numbers, without a list.
  ReturnCode Emit(std::initializer_list<tidegate::TagView> tags,
                  std::initializer_list<MetricFieldValue> values) {
    return EmitByViews(*impl_, tags.begin(), tags.size(), values.begin(), values.size());
  }

  /// Sets the bounds of a metric whose suffixes hold histograms; at most once. `histo` is only
  /// read by the call. 81 without `histo`, 70 for another form or if there are bounds already,
  /// 36 if `histo` refuses itself.
  ReturnCode SetHistogram(HistoUtilBase* histo);
  /// Emits on a compatible metric: `tag_pairs` is a flat list, key, value, key, value. 70 for
  /// another form, when the metric is blocked and at the series quota, 35 for an odd number or more
  /// than 510 strings, 53 for a bad key or value.
  ReturnCode CEmit(double value, std::vector<std::string>&& tag_pairs);
  /// Data type of a compatible metric: a gauge, rate, counter, meter or timer. To be set before the
  /// first emission: a series keeps the type that it was made with. Without one it drops all.
  void SetCompatibleType(MetricsType type) { compatible_type_.store(type); }
  /// Summaries travel as one row of fields instead of one gauge per number. From the next flush on.
  void SetMultiFieldSummary(bool on) { multi_field_summary_.store(on); }
  /// Summaries estimate their percentiles instead of keeping all samples; those that exist already
  /// stay as they are.
  void SetUseCkms(bool on) { use_ckms_.store(on); }

  /// Called once by the registry, which holds its lock: makes the implementation and its
  /// collector.
  ReturnCode Init(const std::vector<std::string>&& tag_names,
                  const std::vector<tidegate::MetricTag>&& const_tags,
                  const std::vector<MetricFieldCfg>&& fields, HistoUtilBase* histo);
  /// Names of the numbers of a compatible timer. Not called by the library.
  static const std::array<std::string, 10>& GetCompatibleFieldInfo();
  /// For the self monitor: reports the statistics of this metric on `stat_metric`, under the tag
  /// "metric_name", and takes what was counted.
  ReturnCode EmitStat(Metric* stat_metric);

  MetricRegistry* registry_;  ///< not owned; pinned before use, but for the thread that makes it
  std::unique_ptr<MetricImpl> impl_;  ///< made by `Init`, never replaced

 private:
  /// The implementation of this form, or null for an unknown one.
  std::unique_ptr<MetricImpl> MakeImpl(const std::vector<std::string>&& tag_names);
};

}  // namespace METRICS

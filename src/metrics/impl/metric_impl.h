#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/impl_parts.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_parts.h"
#include "tidegate/metric_tag.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/taken_entries.h"

namespace METRICS {

class HistoUtilBase;
class MetricCollectorBase;
class MetricCollectorFactory;
class TagValueRefs;

/// Finds the series of a caller's tags; each form of metric has a class of its own.
///
/// Threads: the `With...` family from any thread; it takes no lock but the collector's and, for a
/// series that exists, allocates nothing. Owned by its `Metric`.
class MetricImpl : public ImplParts {
 public:
  using ItemPtr = std::shared_ptr<MetricCollectorItem>;

  MetricImpl(const std::string& tenant, const std::string& name, MetricParts* metric,
             const std::vector<std::string>&& tag_names);
  virtual ~MetricImpl();
  MetricImpl(const MetricImpl&) = delete;
  MetricImpl& operator=(const MetricImpl&) = delete;

  /// Gets the collector and puts the metric into service; 17 if there is none to be had.
  virtual ReturnCode InitCollector();
  /// The item of the series; the dummy item, counted, where the collector has none.
  virtual ItemPtr GetOrCreate(const std::vector<std::string>& tag_values);
  /// Drops all series.
  virtual ReturnCode ClearCollector();
  virtual unsigned long GetSeriesCount();
  virtual unsigned long GetDPCount();
  virtual void InitHisto(HistoUtilBase& histo);
  virtual void InitField(const std::vector<MetricFieldCfg>&& fields);
  /// Emits one number on the series of a flat list of tag pairs; 70 but for compatible metrics.
  virtual ReturnCode CEmit(double value, std::vector<std::string>&& tag_pairs);
  virtual MetricCoItemType Type();

  // Never null: the dummy item stands for any failure. See `Metric` for the forms.
  // Inline in the source of `FindByTags` and its like, through which all calls go.
  // `Tags` is a list of `MetricTag`, or of `TagView`.
  template <class Tags>
  inline ItemPtr WithTags(const Tags& tags);
  inline ItemPtr WithTagValues(const std::vector<std::string>& values);
  inline ItemPtr WithTagMap(const std::unordered_map<std::string, std::string>& tags);
  /// `WithTags(tags)->Emit(...)` of a list of values.
  template <class Tags>
  inline ReturnCode Emit(const Tags& tags, const MetricFieldValue* values, size_t count);
  /// The series of a flat list: key, value, key, value. Another order is another series.
  ItemPtr WithCompatibleTags(const std::vector<std::string>& tag_pairs);

  /// Puts the value of each tag at the index of its name. 37 for too many tags, 53 for a bad
  /// value, 50 for an unknown key.
  ReturnCode GetTagValueVec(const std::vector<tidegate::MetricTag>& tags,
                            std::vector<std::string>& values);
  /// Counts a failed emission on the metric and gives the dummy item.
  ItemPtr GetDummyItem();
  static ItemPtr GetMetricDummyItem(MetricParts* metric);

  /// Builds the list of tags that every series carries in packets, from the declared names and
  /// `const_tags`.
  void PrepareSendTagKV(const std::vector<tidegate::MetricTag>& const_tags);
  /// Finds the index of each declared name in that list.
  void PrepareTagIdx();

  /// Takes the series out of the collector, unless another metric in service has them too.
  TakenEntries TakeSeries();
  /// The same at the end: the collector leaves the factory, unless another metric has it too.
  TakenEntries LeaveCollector();
  /// The metric that counts the series of this one, if it is another metric.
  const std::shared_ptr<MetricParts>& CollectorOwner() const { return collector_owner_; }

  const std::shared_ptr<MetricCollectorFactory> collector_factory_;
  std::shared_ptr<MetricCollectorBase> collector_;

 private:
  /// The end of `WithTags`: finds the series of tags whose values have been placed, validates them
  /// if need be, and makes the series if it is new.
  template <class Tags>
  inline ItemPtr FindPlaced(const Tags& tags, bool placed, TagValueRefs& values);
  /// The item of a series whose values are elsewhere; they are copied if it is new.
  ItemPtr FindOrCreate(const TagValueRefs& values);
  /// `item`, or, if it is null, what `GetDummyItem` gives.
  ItemPtr OrDummy(ItemPtr item);
  /// `GetOrCreate` with copies of the values.
  ItemPtr CopyAndGet(const TagValueRefs& values);
  enum class Placing { kDone, kRepeatedKey, kUnknownKey };

  /// Puts the values in place, the last one where a key is repeated.
  template <class Tags>
  inline Placing Place(const Tags& tags, TagValueRefs& values) const;
  /// The same from tag `first` on, which is not the one with that index.
  template <class Tags>
  Placing PlaceRest(const Tags& tags, size_t first, TagValueRefs& values) const;
  /// 37 for too many tags, 53 for a bad value.
  template <class Tags>
  ReturnCode Validate(const Tags& tags) const;
  /// `GetTagValueVec` without copies.
  template <class Tags>
  ReturnCode Resolve(const Tags& tags, TagValueRefs& values) const;
  /// False when no emission may pass; then with a line unless the metric is still being made.
  bool PassStateGate() const;
  bool RefuseMoreThanDeclared(size_t count) const;

  void TellNamesakes(const MetricParts& other, bool shared) const;

  // The metric that `collector_` was made for, if it is another of the same full name, and its
  // registry: the series are defined by them, whatever is removed.
  std::shared_ptr<RegistryParts> owner_registry_;
  std::shared_ptr<MetricParts> collector_owner_;
  std::atomic<bool> joined_{false};        ///< the factory knows this metric and its collector
  std::atomic<bool> told_refusal_{false};  ///< the line about a collector on standby is printed
};

/// The implementation of ordinary metrics: suffixes appear as they are emitted.
class SuffixedMetricImpl final : public MetricImpl {
 public:
  using MetricImpl::MetricImpl;
  ~SuffixedMetricImpl() override;

  void InitHisto(HistoUtilBase& histo) override;
  MetricCoItemType Type() override { return MetricCoItemType::kCoItemSuffix; }

  /// Sets the bounds; false when there are some already. An empty list sets nothing.
  bool TakeBounds(const std::vector<double>& bounds);

 private:
  std::atomic<bool> bounds_taken_{false};  ///< by the one thread that writes `bounds_`
};

}  // namespace METRICS

#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "util/metric_common.h"
#include "util/short_text.h"

namespace METRICS {

/// What the tags of an overflow series say, to which a metric at its limit sends new ones.
constexpr std::string_view kOverflowValue = "other";

/// A compatible metric has an overflow series for each list of keys, and one without tags once it
/// has this many.
constexpr size_t kMostOverflowSeries = 64;

/// Whether the text at `index` of a series' values is a key: those of compatible metrics are pairs.
inline bool IsKey(MetricCoItemType form, size_t index) {
  return form == MetricCoItemType::kCoItemCompatible && index % 2 == 0;
}

/// The values of the overflow series for a series of `values`, which are the caller's.
template <class Values>
class OverflowValues {
 public:
  /// `tagged` false: the series without tags, of a compatible metric.
  OverflowValues(const Values& values, MetricCoItemType form, bool tagged)
      : values_(values), form_(form), count_(tagged ? values.size() : 0) {}

  size_t size() const { return count_; }
  std::string_view operator[](size_t index) const {
    assert(index < count_);
    return IsKey(form_, index) ? std::string_view(values_[index]) : kOverflowValue;
  }
  std::vector<std::string> ToVector() const {
    std::vector<std::string> values;
    values.reserve(count_);
    for (size_t i = 0; i < count_; ++i) {
      values.emplace_back((*this)[i]);
    }
    return values;
  }

 private:
  const Values& values_;
  const MetricCoItemType form_;
  const size_t count_;
};

/// Whether `values` are those of an overflow series, as they are without any tag.
template <class Values>
bool IsOverflow(const Values& values, MetricCoItemType form) {
  for (size_t i = 0; i < values.size(); ++i) {
    if (!IsKey(form, i) && !SameText(values[i], kOverflowValue)) {
      return false;
    }
  }
  return true;
}

/// How many series of the sort of `values` there may be at most, where the others count up to
/// `limit`; 0 for none.
template <class Values>
size_t MostSeries(const Values& values, MetricCoItemType form, size_t limit) {
  if (limit == 0) {
    return SIZE_MAX;
  }
  if (!IsOverflow(values, form)) {
    return limit;
  }
  return form == MetricCoItemType::kCoItemCompatible && values.size() > 0 ? kMostOverflowSeries
                                                                          : SIZE_MAX;
}

}  // namespace METRICS

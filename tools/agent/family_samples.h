#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "agent/families.h"
#include "agent/numbers.h"

// The samples that a series has in a family, for every receiver that speaks the language of
// Prometheus. Free functions without state, safe from any number of threads.

namespace tidegate::agent {

// The newest value of a column, or for accumulated ones its sum.
struct Cell {
  double value = 0;
  int64_t timestamp = INT64_MIN;  // seconds since the epoch; INT64_MIN: there was none yet
};

// Receivers refuse everything for one timestamp beyond 64 bits of milliseconds.
inline constexpr int64_t kMaxSampleSeconds = INT64_MAX / 1000 - 1;

inline constexpr NumberWords kSampleWords = {"NaN", "+Inf", "-Inf"};

struct FamilySample {
  std::string_view end;          // of its name, after that of the family
  std::string_view label;        // of its own, beside those of the series; empty: none
  std::string_view label_value;  // digits and such, nothing to escape
  double value;
  int64_t timestamp;  // seconds since the epoch
};

template <typename Handle>
void ForEachSampleOfSummary(const Cell* cells, const Handle& handle) {
  const std::string_view label = RowOf(Kind::kTimerRow).own_label;
  for (size_t i = kTimerFirstQuantile; i < std::size(kTimerColumns); ++i) {
    const Cell& cell = cells[i];
    handle(FamilySample{{}, label, kTimerColumns[i].quantile, cell.value, cell.timestamp});
  }
  const Cell& sum = cells[kTimerSum];
  const Cell& count = cells[kTimerCount];
  handle(FamilySample{kSumEnd, {}, {}, sum.value, sum.timestamp});
  handle(FamilySample{kCountEnd, {}, {}, count.value, count.timestamp});
}

template <typename Handle>
void ForEachSampleOfHistogram(const std::vector<double>& bounds, const Cell* cells,
                              const Handle& handle) {
  const std::string_view label = RowOf(Kind::kHistogram).own_label;
  double below = 0;
  std::string le;
  for (size_t i = 0; i < bounds.size(); ++i) {
    below += cells[i].value;
    const bool last = i + 1 == bounds.size();
    // Bounds that are equal in their six decimals would give the same sample twice.
    if (!last && i + 2 < bounds.size() && bounds[i + 1] == bounds[i + 2]) continue;
    le.clear();
    AppendNumber(last ? INFINITY : bounds[i + 1], kSampleWords, &le);
    handle(FamilySample{kBucketEnd, label, le, below, cells[i].timestamp});
  }
  const Cell& sum = cells[bounds.size()];
  const Cell& count = cells[bounds.size() + 1];
  handle(FamilySample{kSumEnd, {}, {}, sum.value, sum.timestamp});
  // A packet can claim any count, and receivers want that of all buckets.
  handle(FamilySample{kCountEnd, {}, {}, below, count.timestamp});
}

// Calls handle(const FamilySample&) for each. The bounds are those of a histogram, the cells those
// of the metric's columns.
template <typename Handle>
void ForEachSample(const FamilyPart& family, const std::vector<double>& bounds, const Cell* cells,
                   const Handle& handle) {
  switch (family.type) {
    case FamilyType::kSummary:
      ForEachSampleOfSummary(cells, handle);
      break;
    case FamilyType::kHistogram:
      ForEachSampleOfHistogram(bounds, cells, handle);
      break;
    case FamilyType::kGauge:
    case FamilyType::kCounter:
    case FamilyType::kUntyped: {
      const Cell& cell = cells[family.column];
      handle(FamilySample{{}, {}, {}, cell.value, cell.timestamp});
      break;
    }
  }
}

}  // namespace tidegate::agent

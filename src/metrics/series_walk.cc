#include "metrics/series_walk.h"

#include <algorithm>

#include "util/line_allocator.h"

namespace METRICS {
namespace {

void FetchLines(const void* start, size_t lines) {
  asm volatile("");  // gcc drops the calls of a function that does nothing but fetch
  for (size_t i = 0; i < lines; ++i) {
    __builtin_prefetch(static_cast<const char*>(start) + i * kCacheLineBytes);
  }
}

}  // namespace

void SeriesWalk::FetchAfter(const std::vector<Series>& series, size_t index) {
  constexpr size_t kSteps = 8;  // what the second fetch reads has come by then
  if (index + 2 * kSteps < series.size()) {
    const auto& [tags, item] = series[index + 2 * kSteps];
    FetchLines(item.get(), 4);
    FetchLines(&tags, 1);
  }
  if (index + kSteps < series.size()) {
    const auto& [tags, item] = series[index + kSteps];
    if (item->encoded_tags_.empty()) {
      FetchLines(tags.data(), 2);
    } else {
      FetchLines(item->encoded_tags_.data(), 2);
    }
  }
}

size_t SeriesWalk::ListCells(const std::vector<Series>& series, size_t begin) {
  constexpr size_t kMostCells = 64;  // more would push each other out of the cache
  const size_t last = std::min(begin + kListedAtOnce, series.size());
  size_t cells = 0;
  size_t i = begin;
  for (; i < last && cells < kMostCells; ++i) {
    FetchAfter(series, i);
    ListedSeries& listed = listed_[i - begin];
    listed.active = IsActive(series[i]);
    if (listed.active) {
      series[i].second->ListCells(listed.cells);
      cells += listed.cells.size();
    }
  }
  return i;
}

}  // namespace METRICS

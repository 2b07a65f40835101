#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "metrics/cell_table.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_collector_item.h"

namespace METRICS {

/// How a flush goes through the series of a metric. It waits for memory above all, so a walk has
/// that of the series to come fetched, and lets go of each one while it is near. Hidden series are
/// left out.
class SeriesWalk {
 public:
  /// Calls `visit(series, more)` for each; `more`: others follow, of which all may be hidden.
  template <class Visit>
  static void EachSeries(std::vector<Series>& series, Visit visit);

  /// Calls `visit(series, cells)` for each, with a list of its cells. Those of up to 8 series are
  /// listed, and on their way to the cache, before the first of these is visited: one that is shown
  /// or gets a cell after that goes out with the next flush.
  template <class Visit>
  void EachWithCells(std::vector<Series>& series, Visit visit);

 private:
  static constexpr size_t kListedAtOnce = 8;
  static constexpr size_t kCellsKept = 1024;  // that a list keeps memory for

  struct ListedSeries {
    bool active = false;
    std::vector<CellRef> cells;
  };

  static bool IsActive(const Series& series) {
    return series.second->active_.load(std::memory_order_relaxed);
  }
  /// Has the memory of series that come some steps after `index` fetched.
  static void FetchAfter(const std::vector<Series>& series, size_t index);
  /// Lists the cells of `series[begin]` and some more; gives the index after the last of them.
  size_t ListCells(const std::vector<Series>& series, size_t begin);

  std::array<ListedSeries, kListedAtOnce> listed_;
};

template <class Visit>
void SeriesWalk::EachSeries(std::vector<Series>& series, Visit visit) {
  for (size_t i = 0; i < series.size(); ++i) {
    FetchAfter(series, i);
    if (IsActive(series[i])) {
      visit(series[i], i + 1 < series.size());
    }
    series[i].second.reset();
  }
}

template <class Visit>
void SeriesWalk::EachWithCells(std::vector<Series>& series, Visit visit) {
  for (size_t begin = 0, end = 0; begin < series.size(); begin = end) {
    end = ListCells(series, begin);
    for (size_t i = begin; i < end; ++i) {
      ListedSeries& listed = listed_[i - begin];
      if (listed.active) {
        visit(series[i], listed.cells);
      }
      series[i].second.reset();
      if (listed.cells.capacity() > kCellsKept) {
        std::vector<CellRef>().swap(listed.cells);
      }
    }
  }
}

}  // namespace METRICS

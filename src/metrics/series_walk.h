#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <vector>

#include "metrics/cell_table.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_collector_item.h"

namespace METRICS {

/// How a flush goes through the series of a collector: by pieces of its listing, of which it holds
/// two at most. It waits for memory above all, so a walk has that of the series to come fetched,
/// and lets go of each one while it is near. Hidden series are left out. Used by one thread at a
/// time; keeps its memory from walk to walk.
class SeriesWalk {
 public:
  /// Turns to the series of `collector`, which has to outlive the walk. False if there are none.
  bool Begin(MetricCollectorBase& collector);
  /// Lets go of what is left of a walk that was given up.
  void End();

  /// Calls `visit(item, more)` for each; `more`: others follow, of which all may be hidden.
  template <class Visit>
  void EachSeries(Visit visit);

  /// Calls `visit(item, cells)` for each, with a list of its cells. Those of up to 7 series after
  /// it are listed by then, and on their way to the cache: one that is shown or gets a cell after
  /// that goes out with the next flush.
  template <class Visit>
  void EachWithCells(Visit visit);

 private:
  static constexpr size_t kListedAtOnce = 8;
  static constexpr size_t kMostCells = 64;    // more would push each other out of the cache
  static constexpr size_t kCellsKept = 1024;  // that a list keeps memory for

  struct ListedSeries {
    bool active = false;
    std::vector<CellRef> cells;
  };

  static bool IsActive(const MetricCollectorItem& item) {
    return item.active_.load(std::memory_order_relaxed);
  }
  /// Lists the piece after this one. False if there is none.
  bool ListNext() { return collector_->NextPiece(cursor_, next_); }
  /// Goes on with that piece.
  void TakeNext();
  /// Has the memory of the first series of a piece fetched, and of those that come some steps after
  /// `index`.
  void FetchFirst() const;
  void FetchAfter(size_t index) const;
  /// Lists the cells of a series of the piece, and gives how many there are.
  size_t ListCells(size_t index);
  ListedSeries& Listed(size_t index) { return listed_[index % kListedAtOnce]; }

  MetricCollectorBase* collector_ = nullptr;  ///< not owned
  ListCursor cursor_;
  SeriesItems piece_;
  SeriesItems next_;  ///< empty but at the end of `piece_`
  std::array<ListedSeries, kListedAtOnce> listed_;
};

template <class Visit>
void SeriesWalk::EachSeries(Visit visit) {
  for (; !piece_.empty(); TakeNext()) {
    FetchFirst();
    for (size_t i = 0; i < piece_.size(); ++i) {
      FetchAfter(i);
      const bool more = i + 1 < piece_.size() || ListNext();
      if (IsActive(*piece_[i])) {
        visit(*piece_[i], more);
      }
      piece_[i].reset();
    }
  }
}

template <class Visit>
void SeriesWalk::EachWithCells(Visit visit) {
  for (; !piece_.empty(); TakeNext()) {
    FetchFirst();
    size_t listed = 0;
    size_t cells = 0;  // of those that are listed and not visited yet
    for (size_t i = 0; i < piece_.size(); ++i) {
      const size_t most = std::min(i + kListedAtOnce, piece_.size());
      while (listed < most && (listed == i || cells < kMostCells)) {
        cells += ListCells(listed++);
      }
      ListedSeries& series = Listed(i);
      if (series.active) {
        visit(*piece_[i], series.cells);
      }
      piece_[i].reset();
      cells -= series.cells.size();
      if (series.cells.capacity() > kCellsKept) {
        std::vector<CellRef>().swap(series.cells);
      }
    }
    ListNext();
  }
}

}  // namespace METRICS

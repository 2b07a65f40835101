#pragma once

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

  /// Calls `visit(item, cells)` for each, with a list of its cells. Those of up to 8 series are
  /// listed, and on their way to the cache, before the first of these is visited: one that is shown
  /// or gets a cell after that goes out with the next flush.
  template <class Visit>
  void EachWithCells(Visit visit);

 private:
  static constexpr size_t kListedAtOnce = 8;
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
  /// Lists the cells of series `begin` of the piece and some more; gives the index after the last
  /// of them.
  size_t ListCells(size_t begin);

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
    for (size_t begin = 0, end = 0; begin < piece_.size(); begin = end) {
      end = ListCells(begin);
      for (size_t i = begin; i < end; ++i) {
        ListedSeries& listed = listed_[i - begin];
        if (listed.active) {
          visit(*piece_[i], listed.cells);
        }
        piece_[i].reset();
        if (listed.cells.capacity() > kCellsKept) {
          std::vector<CellRef>().swap(listed.cells);
        }
      }
    }
    ListNext();
  }
}

}  // namespace METRICS

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "agent/series_layout.h"
#include "agent/series_table.h"

namespace tidegate::agent {

// A page or a reading. While there is one nothing is erased, so that a position stays good.
class SeriesTable::PageTurns {
 public:
  explicit PageTurns(SeriesTable* table) : table_(table) { Set(true); }
  ~PageTurns() { Set(false); }
  PageTurns(const PageTurns&) = delete;
  PageTurns& operator=(const PageTurns&) = delete;

 private:
  void Set(bool in_work) {
    const METRICS::WriteGuard lock(table_->mutex_);
    table_->page_in_work_ = in_work;
  }

  SeriesTable* const table_;
};

// What a table of series has, for one reader, who takes as long as they like: each call holds the
// table's lock for some microseconds only. As long as there is a reading nothing is erased, so
// layouts, metrics and keys stay good, and these never change; a further reading or a page waits.
//
// Not thread-safe, but for any thread. Borrows the table.
class SeriesTable::Reading {
 public:
  // Where a walk is.
  using Position = size_t;

  // The values of a series.
  struct Values {
    const SeriesLayout* layout = nullptr;  // of its metric; may have changed since
    std::vector<Cell> cells;               // of its columns
    int64_t newest = INT64_MIN;
    std::chrono::steady_clock::time_point news;
    uint64_t id = 0;
  };

  // How many series a layout has.
  struct Counted {
    const SeriesLayout* layout;
    size_t series;
  };

  explicit Reading(SeriesTable* table) : table_(table) {}

  // Replaces the content by the next layouts. False at the end.
  bool Next(Position* position, std::vector<Counted>* layouts);
  // Likewise, the next series of a layout.
  bool Next(const SeriesLayout& layout, Position* position,
            std::vector<const KeyedSeries*>* series);
  void Read(const KeyedSeries& series, Values* values);

  // The points of a series in the history, the oldest first: times in seconds, and for each of them
  // the values of all columns, NaN where there is none.
  struct Points {
    std::vector<int64_t> times;
    std::vector<double> values;
  };
  // Those from `since` on, `most` at most, of the newest. Of the layout that the series has now.
  void ReadPoints(const KeyedSeries& series, int64_t since, size_t most, Points* points);

 private:
  // From a position back, some of them. The position is where to go on, 0 at the end.
  void AppendPoints(const KeyedSeries& series, const SeriesLayout& layout, int64_t since,
                    size_t most, PointHistory::Position* position, Points* points);
  // Lets the decoder go first.
  void MakeWay() const;

  SeriesTable* const table_;
};

}  // namespace tidegate::agent

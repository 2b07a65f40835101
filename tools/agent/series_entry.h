#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "agent/exposition.h"
#include "agent/kinds.h"
#include "agent/packet_reader.h"
#include "agent/series_reporters.h"

namespace tidegate::agent {

struct SeriesLayout;

// One series with its values.
struct SeriesEntry {
  SeriesLayout* layout = nullptr;
  uint32_t position = 0;        // in the layout's series
  uint32_t label_bytes = 0;     // of its labels on a line of the page
  Cell cell;                    // of the only column, without a detour through the heap
  std::unique_ptr<Cell[]> row;  // of all columns, if there are more
  int64_t newest = INT64_MIN;   // timestamp
  int64_t start = INT64_MIN;    // since when its totals and sums count, see series_start.h
  uint64_t last_point = 0;      // of PointHistory
  uint64_t id = 0;              // never given twice, also not by the agents before this one
  std::chrono::steady_clock::time_point news;
  SeriesReporters reporters;
  // Of RecordOrder: the seconds between two points of the series, 0 if unknown; some wait.
  uint32_t step : 31;
  uint32_t held : 1;

  SeriesEntry() : step(0), held(0) {}

  Cell* cells() { return row ? row.get() : &cell; }
  const Cell* cells() const { return row ? row.get() : &cell; }

  // With a record of a block of that kind.
  void Update(const KindRow& kind, const Series& record, int64_t timestamp,
              std::chrono::steady_clock::time_point now);
  // Changes the cells alone: each keeps its newest value, or adds up whatever comes.
  void Keep(const KindRow& kind, const Series& record, int64_t timestamp);
  // Makes new cells go on after that time, without values.
  void StartAfter(int64_t timestamp);
  bool IsOutdated(std::chrono::steady_clock::time_point now, std::chrono::seconds ttl) const {
    return !held && now - news > ttl;
  }
};

// A series in the table, with its key.
using KeyedSeries = std::pair<const std::string, SeriesEntry>;

}  // namespace tidegate::agent

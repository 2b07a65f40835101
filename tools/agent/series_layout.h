#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "agent/exposition.h"
#include "agent/name_claims.h"
#include "agent/packet_reader.h"
#include "agent/point_mapping.h"
#include "agent/series_entry.h"

// The metrics of the table of series and their layouts. Not thread-safe; the table guards them.

namespace tidegate::agent {

struct SeriesLayout;

// The common part of all series of one name and kind.
struct SeriesMetric {
  Kind kind;
  std::string name;
  uint64_t id;                     // in the keys of its series
  NameClaims<std::string> labels;  // as they are shown, by tags
  // By columns, as HashOfColumns has them.
  std::unordered_multimap<size_t, std::unique_ptr<SeriesLayout>> layouts;

  // The layout with the block's columns, or null.
  SeriesLayout* Find(const Block& block) const;
  size_t Bytes() const;  // without its layouts
};

size_t HashOfColumns(const Block& block);

// The common part of all series of a metric with the same columns. Columns change rarely, with the
// version of a service; the series then start again.
struct SeriesLayout {
  static constexpr uint32_t kHidden = UINT32_MAX;  // another metric holds the name

  // Without parts if there is no page. The metric is left to the table.
  SeriesLayout(Kind kind, const Block& block, bool page);

  // Of a part of it, as SourceOf takes it.
  std::string_view ColumnOf(const FamilyPart& part) const;
  size_t CellBytes() const;                          // of one series, outside of its entry
  size_t PageBytes(const SeriesEntry& entry) const;  // of one of its series, at most

  // Does all of adding a series that needs memory. Returns its cells if they are many.
  std::unique_ptr<Cell[]> Prepare();
  // REQUIRES: Prepare.
  void Add(KeyedSeries* keyed, std::unique_ptr<Cell[]> row);
  void Remove(KeyedSeries* keyed);
  // Gives back the room of many that were removed, if there is memory for the rest.
  void Shrink();

  SeriesMetric* metric = nullptr;
  std::vector<std::string> columns;  // one without a name, if the metric has none
  std::vector<double> bounds;        // of histograms
  std::vector<FamilyPart> parts;
  std::vector<uint32_t> sources;  // of those, the position in the family, or kHidden
  bool shown_whole = false;
  size_t index = 0;  // among all layouts
  std::vector<KeyedSeries*> series;
  size_t bytes = 0;                // that it takes itself
  size_t head_bytes = 0;           // on the page
  LinesSize series_size = {0, 0};  // of each series there
  // For receivers that are told what a family is from time to time: when they are due.
  std::chrono::steady_clock::time_point describe_at;

 private:
  void Measure(Kind kind, const std::string& name);
};

// A part of a layout that is shown in a family.
struct FamilySource {
  SeriesLayout* layout;
  size_t part;
};
using Families = std::map<std::string, std::vector<FamilySource>>;

}  // namespace tidegate::agent

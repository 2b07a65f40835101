#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "agent/page_names.h"
#include "agent/series_budget.h"
#include "agent/series_entry.h"
#include "agent/series_identity.h"
#include "agent/series_layout.h"

namespace tidegate::agent {

// The series with their values, each in the list of its layout.
//
// Not thread-safe. Borrows both. An exception leaves everything as it was.
class SeriesStore {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // `names` is null if there is no page.
  SeriesStore(PageNames* names, SeriesBudget* budget);

  // Null if there is none.
  KeyedSeries* Find(SeriesIdentity* identity, const SeriesMetric& metric);
  // Null if another tag has the name of one of its labels. REQUIRES: there is none yet.
  KeyedSeries* Add(SeriesIdentity* identity, SeriesLayout* layout);
  // Starts it again in another layout of its metric.
  void Move(KeyedSeries* series, SeriesLayout* layout);

  // Lets go of series without news for longer than `ttl`.
  void Sweep(TimePoint now, std::chrono::seconds ttl);
  // As ShrinkBuckets does.
  void Shrink();

  size_t size() const { return series_.size(); }

 private:
  // REQUIRES: the layout has prepared `row`.
  void Attach(KeyedSeries* series, SeriesLayout* layout, std::unique_ptr<Cell[]> row);
  void Detach(KeyedSeries* series);

  PageNames* const names_;
  SeriesBudget* const budget_;
  std::unordered_map<std::string, SeriesEntry> series_;  // by SeriesKey
  uint64_t next_id_;
};

}  // namespace tidegate::agent

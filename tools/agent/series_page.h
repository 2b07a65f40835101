#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "agent/exposition.h"
#include "agent/series_layout.h"

namespace tidegate::agent {

// Writes the lines of all series, family by family, in turns between which series may come and
// change. Nothing may be erased meanwhile.
//
// Not thread-safe; for one page. Borrows the families and the page.
class SeriesPage {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // Leaves out series and columns without news for `ttl`.
  SeriesPage(const Families* families, std::chrono::seconds ttl, bool timestamps,
             std::string* page);

  // False at the end of the page. `now` may be that of an earlier turn.
  bool AppendTurn(TimePoint now);

 private:
  void AppendSeries(const FamilySource& source, const KeyedSeries& keyed, TimePoint now);
  // The columns of a row can be silent for long while others of it go on.
  bool IsSilent(const SeriesEntry& entry, const Cell& cell, TimePoint now) const;

  const Families* const families_;
  const std::chrono::seconds ttl_;
  std::string* const page_;
  SampleWriter writer_;

  // Where the next turn begins.
  Families::const_iterator family_;
  size_t source_ = 0;
  size_t series_ = 0;
  bool head_ = false;  // the family's head is written
};

}  // namespace tidegate::agent

#pragma once

#include <string>

#include "agent/api_query.h"
#include "agent/series_table.h"

// The series of a table as JSON, as docs/page_api.md describes it. Safe from any number of threads.
// Each call takes the time of a walk through the series that it may have to name, and 16 bytes for
// each that fits.

namespace tidegate::agent {

// An answer ends before the item with which it would be longer.
inline constexpr size_t kMaxAnswerBytes = 8 << 20;

// Those that fit the metric, if there is one, and the search; by name, kind and tags.
void AppendSeries(SeriesTable* table, const ApiQuery& query, std::string* out);

// Of the series with these ids, the points of the history, or the newest one if there is none.
void AppendPoints(SeriesTable* table, const ApiQuery& query, std::string* out);

}  // namespace tidegate::agent

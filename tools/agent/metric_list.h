#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "agent/api_query.h"
#include "agent/json_writer.h"
#include "agent/series_table.h"

// The metrics of a table, for those who read it. Safe from any number of threads; each call takes
// the time of a walk through all of them, and the memory of a list of them.

namespace tidegate::agent {

struct MetricList {
  struct Row {
    std::string name;  // as AppendText writes it
    std::string kind;
    std::string tenant;  // of its first series; empty if others have another one
    size_t series = 0;
  };

  size_t total = 0;  // of which rows are a part
  std::vector<Row> rows;
};

// Those whose name has all words of the search, in the order of name and kind.
MetricList FindMetrics(SeriesTable* table, const ApiQuery& query);

// Those with most series.
std::vector<MetricList::Row> TopMetrics(SeriesTable* table, size_t most);

void AppendMetric(const MetricList::Row& row, JsonWriter* json);

// As in answers.
std::string ShownName(const std::string& name);

// Whether a text has all of the words, which are in lower case.
bool HasWords(std::string_view text, const std::vector<std::string>& words);

}  // namespace tidegate::agent

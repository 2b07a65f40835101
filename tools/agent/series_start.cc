#include "agent/series_start.h"

#include "agent/merge_rules.h"

namespace tidegate::agent {

int64_t StartWith(const SeriesEntry& entry, Kind kind, const Series& record, int64_t timestamp,
                  int64_t interval_begin) {
  const KindRow& row = RowOf(kind);
  const bool is_first = entry.newest == INT64_MIN;
  if (row.adds_up) return is_first ? interval_begin : entry.start;
  if (!IsTotal(row.columns[0].merge)) return entry.start;
  const double total = record.values[0];
  if (is_first || (total == 0 && entry.cells()[0].value > 0)) return timestamp;
  return total < entry.cells()[0].value ? entry.newest : entry.start;
}

}  // namespace tidegate::agent

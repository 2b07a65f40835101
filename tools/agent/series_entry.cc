#include "agent/series_entry.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "agent/series_layout.h"

namespace tidegate::agent {
namespace {

void KeepNewest(double value, int64_t timestamp, Cell* cell) {
  if (timestamp >= cell->timestamp) *cell = {value, timestamp};
}

// A sum that met a NaN would stay one, and a counter must not fall.
void AddUp(double value, int64_t timestamp, PageRule rule, Cell* cell) {
  if (std::isfinite(value) && (rule == PageRule::kAddUp || value > 0)) cell->value += value;
  cell->timestamp = std::max(cell->timestamp, timestamp);
}

void AddInterval(const KindRow& kind, const std::vector<double>& values, int64_t timestamp,
                 Cell* cells) {
  for (size_t i = 0; i < values.size(); ++i) {
    const PageRule rule = ColumnAt(kind, i, values.size()).page;
    if (rule == PageRule::kNewest) {
      KeepNewest(values[i], timestamp, &cells[i]);
    } else {
      AddUp(values[i], timestamp, rule, &cells[i]);
    }
  }
}

}  // namespace

void SeriesEntry::Update(const KindRow& kind, const Series& record, int64_t timestamp,
                         std::chrono::steady_clock::time_point now) {
  if (timestamp < newest && !kind.adds_up) return;
  Keep(kind, record, timestamp);
  // Points before a newest time that was wrong are no news, even if they add up: the series has to
  // end for newer quantiles to be shown.
  if (timestamp >= newest) news = now;
  newest = std::max(newest, timestamp);
}

void SeriesEntry::Keep(const KindRow& kind, const Series& record, int64_t timestamp) {
  Cell* const to = cells();
  const std::vector<double>& values = record.values;
  if (kind.adds_up) return AddInterval(kind, values, timestamp, to);
  for (size_t i = 0; i < values.size(); ++i) {
    KeepNewest(values[i], timestamp, &to[record.indexes.empty() ? i : record.indexes[i]]);
  }
}

void SeriesEntry::StartAfter(int64_t timestamp) {
  newest = start = timestamp;
  for (size_t i = 0; i < layout->columns.size(); ++i) cells()[i].timestamp = timestamp;
}

}  // namespace tidegate::agent

#include "agent/series_reading.h"

#include <algorithm>
#include <thread>

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

constexpr size_t kTurn = 2000;  // layouts or series

}  // namespace

void SeriesTable::Reading::MakeWay() const {
  while (table_->waiting_ > 0) std::this_thread::yield();
}

bool SeriesTable::Reading::Next(Position* position, std::vector<Counted>* layouts) {
  layouts->clear();
  layouts->reserve(kTurn);
  MakeWay();
  const WriteGuard lock(table_->mutex_);
  const std::vector<SeriesLayout*>& all = table_->layouts_.all();
  const size_t end = std::min(all.size(), *position + kTurn);
  for (; *position < end; ++*position) {
    const SeriesLayout* const layout = all[*position];
    layouts->push_back({layout, layout->series.size()});
  }
  return !layouts->empty();
}

bool SeriesTable::Reading::Next(const SeriesLayout& layout, Position* position,
                                std::vector<const KeyedSeries*>* series) {
  series->clear();
  series->reserve(kTurn);
  MakeWay();
  const WriteGuard lock(table_->mutex_);
  const std::vector<KeyedSeries*>& all = layout.series;
  const size_t end = std::min(all.size(), *position + kTurn);
  for (; *position < end; ++*position) series->push_back(all[*position]);
  return !series->empty();
}

void SeriesTable::Reading::Read(const KeyedSeries& series, Values* values) {
  // So that nothing is allocated under the lock, mostly.
  values->cells.clear();
  values->cells.reserve(16);
  MakeWay();
  const WriteGuard lock(table_->mutex_);
  const SeriesEntry& entry = series.second;
  values->layout = entry.layout;
  values->cells.assign(entry.cells(), entry.cells() + entry.layout->columns.size());
  values->newest = entry.newest;
  values->news = entry.news;
  values->id = entry.id;
}

}  // namespace tidegate::agent

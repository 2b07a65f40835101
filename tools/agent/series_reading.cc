#include "agent/series_reading.h"

#include <algorithm>
#include <thread>

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

constexpr size_t kTurn = 2000;         // layouts or series
constexpr size_t kTurnValues = 20000;  // of points

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

void SeriesTable::Reading::ReadPoints(const KeyedSeries& series, int64_t since, size_t most,
                                      Points* points) {
  points->times.clear();
  points->values.clear();
  const SeriesLayout* layout = nullptr;
  PointHistory::Position position = 0;
  {
    MakeWay();
    const WriteGuard lock(table_->mutex_);
    if (!table_->history_) return;
    since = std::max(since, table_->now_.seconds - table_->history_->span().count());
    layout = series.second.layout;
    position = series.second.last_point;
  }
  while (position != 0) AppendPoints(series, *layout, since, most, &position, points);
  // They are from the newest to the oldest one.
  std::reverse(points->times.begin(), points->times.end());
  std::reverse(points->values.begin(), points->values.end());
}

void SeriesTable::Reading::AppendPoints(const KeyedSeries& series, const SeriesLayout& layout,
                                        int64_t since, size_t most,
                                        PointHistory::Position* position, Points* points) {
  const size_t columns = layout.columns.size();
  const size_t turn = kTurnValues / (columns + 10) + 1;
  points->times.reserve(points->times.size() + turn);
  points->values.reserve(points->values.size() + turn * columns);
  MakeWay();
  const WriteGuard lock(table_->mutex_);
  if (series.second.layout != &layout) *position = 0;
  for (size_t i = 0; i < turn && *position != 0; ++i) {
    int64_t time = 0;
    PointHistory::Position before = 0;
    const double* const values = table_->history_->Find(*position, &time, &before);
    const bool ends = values == nullptr || time < since || points->times.size() == most;
    *position = ends ? 0 : before;
    // Of two with one time the later one counts.
    if (ends || (!points->times.empty() && points->times.back() == time)) continue;
    points->times.push_back(time);
    // To be reversed as a whole.
    for (size_t column = columns; column > 0; --column) {
      points->values.push_back(values[column - 1]);
    }
  }
}

}  // namespace tidegate::agent

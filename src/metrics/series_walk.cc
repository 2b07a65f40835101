#include "metrics/series_walk.h"

#include <algorithm>
#include <string_view>

#include "metrics/packed_values.h"
#include "util/line_allocator.h"

namespace METRICS {
namespace {

constexpr size_t kSteps = 8;  // after which what was fetched has come
constexpr size_t kItemLines = 3;

void FetchLines(const void* start, size_t lines) {
  asm volatile("");  // gcc drops the calls of a function that does nothing but fetch
  for (size_t i = 0; i < lines; ++i) {
    __builtin_prefetch(static_cast<const char*>(start) + i * kCacheLineBytes);
  }
}

/// The lines of an item with a few short tag values.
void FetchItem(const MetricCollectorItem& item) { FetchLines(&item, kItemLines); }

/// The lines after those, of an item that has come.
void FetchLongValues(const MetricCollectorItem& item) {
  const PackedValues& values = item.values();
  if (values.size() > 0) {
    const std::string_view last = values[values.size() - 1];
    const char* const end = last.data() + last.size();
    const char* line = reinterpret_cast<const char*>(&item) + kItemLines * kCacheLineBytes;
    for (; line < end; line += kCacheLineBytes) {
      __builtin_prefetch(line);
    }
  }
}

}  // namespace

bool SeriesWalk::Begin(MetricCollectorBase& collector) {
  collector_ = &collector;
  cursor_ = {};
  return collector.NextPiece(cursor_, piece_);
}

void SeriesWalk::End() {
  piece_.clear();
  next_.clear();
}

void SeriesWalk::TakeNext() {
  piece_.swap(next_);
  next_.clear();
}

void SeriesWalk::FetchFirst() const {
  const size_t first = std::min(2 * kSteps, piece_.size());
  for (size_t i = 0; i < first; ++i) {
    FetchItem(*piece_[i]);
  }
}

void SeriesWalk::FetchAfter(size_t index) const {
  if (index + 2 * kSteps < piece_.size()) {
    FetchItem(*piece_[index + 2 * kSteps]);
  }
  if (index + kSteps < piece_.size()) {
    const MetricCollectorItem& item = *piece_[index + kSteps];
    if (item.encoded_tags_.empty()) {
      FetchLongValues(item);
    } else {
      FetchLines(item.encoded_tags_.data(), 2);
    }
  }
}

size_t SeriesWalk::ListCells(size_t index) {
  FetchAfter(index);
  ListedSeries& series = Listed(index);
  series.active = IsActive(*piece_[index]);
  if (series.active) {
    piece_[index]->ListCells(series.cells);
  } else {
    series.cells.clear();
  }
  return series.cells.size();
}

}  // namespace METRICS

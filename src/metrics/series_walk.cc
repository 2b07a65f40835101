#include "metrics/series_walk.h"

#include <algorithm>

#include "metrics/packed_values.h"
#include "util/line_allocator.h"

namespace METRICS {
namespace {

constexpr size_t kSteps = 8;  // after which what was fetched has come

void FetchLines(const void* start, size_t lines) {
  asm volatile("");  // gcc drops the calls of a function that does nothing but fetch
  for (size_t i = 0; i < lines; ++i) {
    __builtin_prefetch(static_cast<const char*>(start) + i * kCacheLineBytes);
  }
}

/// The lines of an item that its allocation has, with its tag values.
void FetchItem(const MetricCollectorItem& item) { FetchLines(&item, 5); }

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
    if (!item.encoded_tags_.empty()) {
      FetchLines(item.encoded_tags_.data(), 2);
    }
  }
}

size_t SeriesWalk::ListCells(size_t begin) {
  constexpr size_t kMostCells = 64;  // more would push each other out of the cache
  const size_t last = std::min(begin + kListedAtOnce, piece_.size());
  size_t cells = 0;
  size_t i = begin;
  for (; i < last && cells < kMostCells; ++i) {
    FetchAfter(i);
    ListedSeries& listed = listed_[i - begin];
    listed.active = IsActive(*piece_[i]);
    if (listed.active) {
      piece_[i]->ListCells(listed.cells);
      cells += listed.cells.size();
    }
  }
  return i;
}

}  // namespace METRICS

#include "agent/series_store.h"

#include <cstdint>
#include <utility>

#include "agent/heap_bytes.h"
#include "agent/shrink.h"

namespace tidegate::agent {
namespace {

size_t BytesOf(const KeyedSeries& series) {
  // The node of the table, its key, a bucket and the layout's list of series.
  return sizeof(series) + HeapBytes(series.first) + 4 * kHeapOverhead;
}

}  // namespace

// Ids begin at the nanoseconds since the epoch: no agent makes as many series as it lives
// nanoseconds, so those of the next one are others.
SeriesStore::SeriesStore(PageNames* names, SeriesBudget* budget)
    : names_(names),
      budget_(budget),
      next_id_(static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                         std::chrono::system_clock::now().time_since_epoch())
                                         .count())) {}

KeyedSeries* SeriesStore::Find(SeriesIdentity* identity, const SeriesMetric& metric) {
  const auto found = series_.find(identity->KeyIn(metric.id));
  return found == series_.end() ? nullptr : &*found;
}

KeyedSeries* SeriesStore::Add(SeriesIdentity* identity, SeriesLayout* layout) {
  const std::string& key = identity->KeyIn(layout->metric->id);
  const auto label_bytes = static_cast<uint32_t>(identity->LabelBytes());
  KeyedSeries* series = nullptr;
  std::unique_ptr<Cell[]> row;
  size_t claimed = 0;
  const auto release = [&] { names_->ReleaseLabels(key, claimed, layout->metric); };
  try {
    row = layout->Prepare();
    if (names_ == nullptr || names_->ClaimLabels(key, layout->metric, &claimed)) {
      series = &*series_.try_emplace(key).first;
    }
  } catch (...) {
    if (claimed > 0) release();
    throw;
  }
  if (series == nullptr) {
    release();
    return nullptr;
  }
  series->second.label_bytes = label_bytes;
  series->second.id = next_id_++;
  budget_->Take(BytesOf(*series), 0);
  Attach(series, layout, std::move(row));
  return series;
}

void SeriesStore::Move(KeyedSeries* series, SeriesLayout* layout) {
  std::unique_ptr<Cell[]> row = layout->Prepare();
  Detach(series);
  Attach(series, layout, std::move(row));
  series->second.last_point = 0;
}

void SeriesStore::Attach(KeyedSeries* series, SeriesLayout* layout, std::unique_ptr<Cell[]> row) {
  layout->Add(series, std::move(row));
  budget_->Take(layout->CellBytes(), layout->PageBytes(series->second));
}

void SeriesStore::Detach(KeyedSeries* series) {
  SeriesLayout* const layout = series->second.layout;
  budget_->GiveBack(layout->CellBytes(), layout->PageBytes(series->second));
  layout->Remove(series);
}

void SeriesStore::Sweep(TimePoint now, std::chrono::seconds ttl) {
  for (auto next = series_.begin(); next != series_.end();) {
    KeyedSeries& series = *next;
    if (!series.second.IsOutdated(now, ttl)) {
      ++next;
      continue;
    }
    if (names_ != nullptr) {
      names_->ReleaseLabels(series.first, SIZE_MAX, series.second.layout->metric);
    }
    Detach(&series);
    budget_->GiveBack(BytesOf(series), 0);
    next = series_.erase(next);
  }
}

void SeriesStore::Shrink() { ShrinkBuckets(&series_); }

}  // namespace tidegate::agent

#include "agent/merged_series.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "agent/heap_bytes.h"

namespace tidegate::agent {
namespace {

// With its node, its buckets and the block of its totals.
constexpr size_t kSourceBytes = 128;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

size_t ColumnOf(const Series& record, size_t position) {
  return record.indexes.empty() ? position : record.indexes[position];
}

}  // namespace

MergedLayout::MergedLayout(const Block& block, Kind its_kind, std::vector<MergeRule> its_rules,
                           GaugeMerge its_gauge)
    : kind(its_kind), gauge(its_gauge), fields(block.fields), rules(std::move(its_rules)) {
  total_positions.reserve(rules.size());
  for (const MergeRule rule : rules) {
    total_positions.push_back(totals);
    if (MayBeTotal(rule)) ++totals;
  }
}

void MergedLayout::MarkTotals(const Series& record) {
  for (size_t i = 0; i < record.values.size(); ++i) {
    MergeRule& rule = rules[ColumnOf(record, i)];
    if (MayBeTotal(rule) && !IsTotal(rule)) rule = MergeRule::kTotal;
  }
}

bool MergedSeries::Accepts(MergedLayout* layout, int64_t timestamp) {
  if (layout == layout_) {
    refused_.reset();
    return true;
  }
  if (refused_.has_value() && timestamp > *refused_ && held_.empty()) {
    // Nothing of the old columns can be told in the new ones.
    std::vector<double> totals(layout->totals);
    layout_ = layout;
    totals_.swap(totals);
    sources_.clear();
    late_.reset();
    refused_.reset();
    return true;
  }
  refused_ = std::max(timestamp, refused_.value_or(INT64_MIN));
  return false;
}

MergedSeries::Added MergedSeries::Add(const SourceId& source, int64_t timestamp,
                                      const Series& record, bool before, int64_t begin,
                                      SteadyTime now) {
  const bool late = timestamp <= std::max(handed_, begin) && !Holds(timestamp);
  Source* const counted = layout_->totals > 0 ? SourceOf(source, now) : nullptr;
  Point* const point = late ? Late(timestamp) : FindOrMake(timestamp, source);
  bool something = false;
  bool older = false;
  for (size_t i = 0; i < record.values.size(); ++i) {
    const size_t column = ColumnOf(record, i);
    const MergeRule rule = layout_->rules[column];
    if (MayBeTotal(rule)) {
      const int64_t newest = counted->totals[layout_->total_positions[column]].newest();
      older = older || (timestamp < newest && newest > handed_);
      something = AddTotal(counted, timestamp, column, record, i) || something;
    }
    if (!IsTotal(rule)) something = AddValue(column, record.values[i], late, point) || something;
    if (!late) point->cells[column].used = true;
  }
  if (before && older) layout_->MarkTotals(record);
  if (!late) return Added::kHeld;
  return something ? Added::kLate : Added::kNothing;
}

// Returns whether there was something in it that a late point loses, or moves.
bool MergedSeries::AddValue(size_t column, double value, bool late, Point* point) const {
  const MergeRule rule = layout_->rules[column];
  Cell& cell = point->cells[column];
  if (!late) {
    cell.value = cell.used ? Merge(rule, layout_->gauge, cell.value, value) : value;
    return true;
  }
  if (rule != MergeRule::kSum) return rule != MergeRule::kGaugeOrRate || value != 0;
  if (!std::isfinite(value) || value == 0) return false;
  cell.value += value;
  cell.used = true;
  return true;
}

bool MergedSeries::AddTotal(Source* source, int64_t timestamp, size_t column, const Series& record,
                            size_t position) {
  const double total = record.values[position];
  if (!std::isfinite(total)) return false;
  double first = 0;
  if (layout_->rules[column] == MergeRule::kDeltaTotal &&
      position + kDeltaDeltaColumn < record.values.size() &&
      ColumnOf(record, position + kDeltaDeltaColumn) == column + kDeltaDeltaColumn) {
    const double delta = record.values[position + kDeltaDeltaColumn];
    if (std::isfinite(delta)) first = delta;
  }
  const auto increases =
      source->totals[layout_->total_positions[column]].Add(timestamp, total, first);
  const bool own = AddIncrease(increases.own, column);
  return AddIncrease(increases.later, column) || own;
}

bool MergedSeries::AddIncrease(const ProcessTotal::Increase& increase, size_t column) {
  if (increase.amount == 0) return false;
  Point* const held = Find(increase.timestamp);
  Point* const point = held != nullptr ? held : Late(increase.timestamp);
  point->cells[column].increase += increase.amount;
  return held == nullptr;
}

bool MergedSeries::Holds(int64_t timestamp) const {
  return std::any_of(held_.begin(), held_.end(),
                     [&](const Point& point) { return point.timestamp == timestamp; });
}

size_t MergedSeries::Take(int64_t timestamp, Series* record) {
  Point* const point = Find(timestamp);
  const bool whole = RowOf(layout_->kind).form != ColumnForm::kAny;
  size_t left_out = 0;
  record->values.reserve(point->cells.size());
  if (!whole) record->indexes.reserve(point->cells.size());
  // From here on nothing can fail.
  AddWhatWasLate(point);
  if (point->several) FinishAverages(point);
  for (size_t column = 0; column < point->cells.size(); ++column) {
    const MergeRule rule = layout_->rules[column];
    const Cell& cell = point->cells[column];
    double value = cell.value;
    if (MayBeTotal(rule)) {
      double& total = totals_[layout_->total_positions[column]];
      total += cell.increase;
      if (IsTotal(rule)) value = total;
    }
    if (!cell.used && !whole) continue;
    if (!cell.used) value = kNan;
    if (point->several && rule == MergeRule::kQuantile) {
      ++left_out;
      if (!whole) continue;
      value = kNan;
    }
    if (!whole) record->indexes.push_back(static_cast<uint32_t>(column));
    record->values.push_back(value);
  }
  handed_ = std::max(handed_, timestamp);
  held_.erase(held_.begin() + (point - held_.data()));
  return left_out;
}

// A sum of a column that the point does not have, as those of rows may not, waits on.
void MergedSeries::AddWhatWasLate(Point* point) {
  if (late_ == nullptr || late_->timestamp >= point->timestamp) return;
  bool rest = false;
  for (size_t column = 0; column < point->cells.size(); ++column) {
    Cell& cell = point->cells[column];
    Cell& late = late_->cells[column];
    cell.increase += std::exchange(late.increase, 0);
    if (!late.used) continue;
    if (!cell.used) {
      rest = true;
      continue;
    }
    cell.value = Merge(layout_->rules[column], layout_->gauge, cell.value, late.value);
    point->several = true;
    late = Cell();
  }
  if (!rest) late_.reset();
}

void MergedSeries::FinishAverages(Point* point) const {
  constexpr size_t kSum = kTimerSum - kTimerAvg;
  constexpr size_t kCount = kTimerCount - kTimerAvg;
  std::vector<Cell>& cells = point->cells;
  for (size_t i = 0; i < cells.size(); ++i) {
    if (layout_->rules[i] != MergeRule::kAverage) continue;
    const double count = cells[i + kCount].value;
    cells[i].value = count > 0 ? cells[i + kSum].value / count : kNan;
  }
}

MergedSeries::Point* MergedSeries::Find(int64_t timestamp) {
  const auto found = std::find_if(held_.begin(), held_.end(),
                                  [&](const Point& point) { return point.timestamp == timestamp; });
  return found == held_.end() ? nullptr : &*found;
}

MergedSeries::Point* MergedSeries::FindOrMake(int64_t timestamp, const SourceId& source) {
  if (Point* const point = Find(timestamp)) {
    point->several = point->several || !(point->source == source);
    return point;
  }
  Point point = {timestamp, source, false, std::vector<Cell>(layout_->rules.size())};
  held_.push_back(std::move(point));
  return &held_.back();
}

MergedSeries::Point* MergedSeries::Late(int64_t timestamp) {
  if (late_ == nullptr) {
    auto late = std::make_unique<Point>();
    late->timestamp = timestamp;
    late->cells.resize(layout_->rules.size());
    late_ = std::move(late);
  }
  late_->timestamp = std::max(late_->timestamp, timestamp);
  return late_.get();
}

MergedSeries::Source* MergedSeries::SourceOf(const SourceId& id, SteadyTime now) {
  auto found = sources_.find(id);
  if (found == sources_.end()) {
    found = sources_.emplace(id, Source{now, std::vector<ProcessTotal>(layout_->totals)}).first;
  }
  found->second.news = now;
  return &found->second;
}

size_t MergedSeries::bytes() const {
  const size_t points = held_.size() + (late_ == nullptr ? 0 : 1);
  return sizeof(MergedSeries) + totals_.size() * sizeof(double) +
         (held_.capacity() + 1) * sizeof(Point) +
         points * (layout_->rules.size() * sizeof(Cell) + kHeapOverhead) +
         sources_.size() * (kSourceBytes + layout_->totals * sizeof(ProcessTotal)) +
         4 * kHeapOverhead;
}

}  // namespace tidegate::agent

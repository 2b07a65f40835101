#include "agent/series_layout.h"

#include <algorithm>

#include "agent/heap_bytes.h"
#include "agent/help_text.h"

namespace tidegate::agent {
namespace {

bool SameColumns(const Block& block, const std::vector<std::string>& columns) {
  return block.fields.empty() ||
         std::equal(block.fields.begin(), block.fields.end(), columns.begin(), columns.end(),
                    [](const Field& field, const std::string& name) { return field.name == name; });
}

}  // namespace

size_t HashOfColumns(const Block& block) {
  constexpr size_t kMix = 0x9e3779b97f4a7c15;
  size_t hash = 0;
  for (const Field& field : block.fields) {
    hash = (hash ^ std::hash<std::string>{}(field.name)) * kMix;
  }
  return hash;
}

SeriesLayout* SeriesMetric::Find(const Block& block) const {
  auto [next, end] = layouts.size() == 1 ? std::make_pair(layouts.begin(), layouts.end())
                                         : layouts.equal_range(HashOfColumns(block));
  while (next != end && !SameColumns(block, next->second->columns)) ++next;
  return next == end ? nullptr : next->second.get();
}

size_t SeriesMetric::Bytes() const {
  return sizeof(SeriesMetric) + 2 * HeapBytes(name) + sizeof(std::string) + 6 * kHeapOverhead;
}

SeriesLayout::SeriesLayout(Kind kind, const Block& block, bool page) {
  columns.reserve(std::max<size_t>(block.fields.size(), 1));
  for (const Field& field : block.fields) columns.push_back(field.name);
  if (columns.empty()) columns.emplace_back();
  if (RowOf(kind).form == ColumnForm::kBounds) bounds = *HistogramBounds(block);
  if (page) parts = FamiliesOf(kind, block.name, columns);
  sources.assign(parts.size(), kHidden);
  Measure(kind, block.name);
}

void SeriesLayout::Measure(Kind kind, const std::string& name) {
  bytes = sizeof(SeriesLayout) + 2 * sizeof(void*) + 4 * kHeapOverhead +
          bounds.capacity() * sizeof(double) + parts.capacity() * sizeof(FamilyPart);
  for (const std::string& column : columns) bytes += sizeof(std::string) + HeapBytes(column);
  for (const FamilyPart& part : parts) {
    // The name stands in the table of families as well; claims count themselves.
    bytes += 2 * HeapBytes(part.name) + sizeof(uint32_t) + sizeof(Families::value_type) +
             2 * sizeof(FamilySource) + 4 * kHeapOverhead;
    head_bytes += HeadSize(part, HelpOf(kind, name, ColumnOf(part)));
    const LinesSize size = SeriesSize(part, bounds);
    series_size.lines += size.lines;
    series_size.bytes += size.bytes;
  }
}

std::string_view SeriesLayout::ColumnOf(const FamilyPart& part) const {
  return FormOf(part.type).whole ? std::string_view() : columns[part.column];
}

size_t SeriesLayout::CellBytes() const {
  return columns.size() > 1 ? columns.size() * sizeof(Cell) + kHeapOverhead : 0;
}

size_t SeriesLayout::PageBytes(const SeriesEntry& entry) const {
  return series_size.bytes + series_size.lines * entry.label_bytes;
}

std::unique_ptr<Cell[]> SeriesLayout::Prepare() {
  if (series.size() == series.capacity()) series.reserve(2 * series.size() + 1);
  return columns.size() > 1 ? std::make_unique<Cell[]>(columns.size()) : nullptr;
}

void SeriesLayout::Add(KeyedSeries* keyed, std::unique_ptr<Cell[]> row) {
  SeriesEntry& entry = keyed->second;
  entry.layout = this;
  entry.position = static_cast<uint32_t>(series.size());
  entry.cell = Cell();
  entry.row = std::move(row);
  entry.newest = INT64_MIN;
  series.push_back(keyed);
}

void SeriesLayout::Remove(KeyedSeries* keyed) {
  // If the columns of a series change while a page is written, that page may lack another series of
  // the layout, or this one; the next page is whole.
  const uint32_t position = keyed->second.position;
  series.back()->second.position = position;
  series[position] = series.back();
  series.pop_back();
}

void SeriesLayout::Shrink() {
  constexpr size_t kFew = 1024;
  if (series.capacity() > kFew && series.capacity() / 8 > series.size()) series.shrink_to_fit();
}

}  // namespace tidegate::agent

#include "metrics/cell_table.h"

#include <algorithm>
#include <utility>

namespace METRICS {

const CellTable::Entry* CellTable::Search(const std::string& name) const {
  if (index_ != nullptr) {
    const auto found = index_->find(name);
    return found == index_->end() ? nullptr : &entries_[found->second];
  }
  const auto found = std::find_if(entries_.begin(), entries_.end(), [&name](const Entry& entry) {
    return SameText(entry.name, name);
  });
  return found == entries_.end() ? nullptr : &*found;
}

const CellTable::Entry& CellTable::Set(const std::string& name, CellPtr cell) {
  const MetricsType type = cell->Type();
  const Entry* const known = Search(name);
  if (known != nullptr) {
    Entry& entry = entries_[static_cast<size_t>(known - entries_.data())];
    entry.cell = std::move(cell);
    entry.type = type;
    return entry;
  }
  entries_.push_back({name, std::move(cell), type});
  ExtendIndex();
  return entries_.back();
}

void CellTable::ExtendIndex() {
  if (entries_.size() <= kSearched) {
    return;
  }
  if (index_ == nullptr) {
    index_ = std::make_unique<Index>();
  }
  while (index_->size() < entries_.size()) {
    const size_t place = index_->size();
    index_->emplace(entries_[place].name, place);
  }
}

CellMap CellTable::ToMap() const {
  CellMap map;
  map.reserve(entries_.size());
  for (const Entry& entry : entries_) {
    map.emplace(entry.name, entry.cell);
  }
  return map;
}

size_t CellTable::MemSize() const {
  size_t size = 0;
  for (const Entry& entry : entries_) {
    size += entry.name.size() + kPointerBytes;
  }
  return size;
}

}  // namespace METRICS

#include "metrics/cell_table.h"

#include <utility>

namespace METRICS {

const CellTable::Entry* CellTable::Search(const std::string& name) const {
  if (Size() > kSearched) {
    const auto found = more_->index.find(name);
    return found == more_->index.end() ? nullptr : &(*this)[found->second];
  }
  for (size_t i = 0; i < Size(); ++i) {
    if (SameText((*this)[i].name, name)) {
      return &(*this)[i];
    }
  }
  return nullptr;
}

void CellTable::Set(const std::string& name, CellPtr cell) {
  const MetricsType type = cell->Type();
  const Entry* const known = Search(name);
  if (known != nullptr) {
    auto* const entry = const_cast<Entry*>(known);
    entry->cell = std::move(cell);
    entry->type = type;
    return;
  }
  Add({std::move(cell), type, name});
}

void CellTable::Add(Entry entry) {
  if (first_.cell == nullptr) {
    first_ = std::move(entry);
    return;
  }
  if (more_ == nullptr) {
    more_ = std::make_unique<More>();
  }
  more_->entries.push_back(std::move(entry));
  if (Size() > kSearched) {
    try {
      for (size_t i = more_->index.size(); i < Size(); ++i) {
        more_->index.emplace((*this)[i].name, i);
      }
    } catch (...) {  // a cell that is not in the index would be made again
      more_->entries.pop_back();
      throw;
    }
  }
}

CellMap CellTable::ToMap() const {
  CellMap map;
  map.reserve(Size());
  for (size_t i = 0; i < Size(); ++i) {
    map.emplace((*this)[i].name, (*this)[i].cell);
  }
  return map;
}

size_t CellTable::MemSize() const {
  size_t size = 0;
  for (size_t i = 0; i < Size(); ++i) {
    size += (*this)[i].name.size() + kPointerBytes;
  }
  return size;
}

}  // namespace METRICS

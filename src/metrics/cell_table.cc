#include "metrics/cell_table.h"

#include <utility>

#include "util/short_text.h"

namespace METRICS {

const CellTable::Entry* CellTable::Search(const std::string& name) const {
  const auto matches = [&](size_t index) { return SameText((*this)[index].name, name); };
  if (more_ == nullptr) {
    return Size() == 1 && matches(0) ? &first_ : nullptr;
  }
  const size_t found = more_->names.Find(name, Size(), matches);
  return found == Size() ? nullptr : &(*this)[found];
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
  try {
    more_->names.Extend(Size(), [this](size_t index) { return (*this)[index].name; });
  } catch (...) {  // a cell that is not in the index would be made again
    more_->entries.pop_back();
    throw;
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

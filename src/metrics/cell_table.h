#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "metrics/cell_ptr.h"
#include "metrics/metric_data.h"
#include "util/metric_common.h"
#include "util/name_index.h"
#include "util/short_text.h"

namespace METRICS {

/// A cell as the flush walks it. The name is a copy: the item may move its own meanwhile.
struct CellRef {
  std::string name;
  MetricBasicData* cell = nullptr;  ///< good for as long as its item lives
  MetricsType type = MetricsType::kUnknown;
};

/// The cells of one series by name, in the order in which they were made. Cells are added, and
/// stay.
///
/// Not thread-safe: its owner guards it. Made for the few cells that a series has, mostly one,
/// which is kept in the table itself.
class CellTable {
 public:
  struct Entry {
    CellPtr cell;
    MetricsType type = MetricsType::kUnknown;  ///< of the cell
    std::string name;
  };

  /// The cell of `name`, or null. Looks first where the caller expects it: at index `likely`.
  const Entry* Find(const std::string& name, size_t likely) const {
    if (likely < Size() && SameText((*this)[likely].name, name)) {
      return &(*this)[likely];
    }
    return Search(name);
  }
  /// Adds a cell, or replaces the one that has the name.
  void Set(const std::string& name, CellPtr cell);

  size_t Size() const {
    return more_ != nullptr ? 1 + more_->entries.size() : first_.cell != nullptr ? 1 : 0;
  }
  const Entry& operator[](size_t index) const {
    return index == 0 ? first_ : more_->entries[index - 1];
  }
  CellMap ToMap() const;
  /// Bytes of names and pointers, as the statistics count them.
  size_t MemSize() const;

  /// What a cell is accounted for in the statistics beside its name.
  static constexpr size_t kPointerBytes = 16;

 private:
  struct More {
    std::vector<Entry> entries;
    NameIndex names;
  };

  const Entry* Search(const std::string& name) const;
  void Add(Entry entry);

  Entry first_;  ///< its cell is null as long as there is none
  std::unique_ptr<More> more_;
};

}  // namespace METRICS

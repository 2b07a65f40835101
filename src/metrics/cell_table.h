#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/metric_data.h"
#include "util/metric_common.h"
#include "util/short_text.h"

namespace METRICS {

using CellPtr = std::shared_ptr<MetricBasicData>;
using CellMap = std::unordered_map<std::string, CellPtr>;

/// The cells of one series by name, in the order in which they were made. Cells are added, and
/// stay.
///
/// Not thread-safe: its owner guards it. Made for the few cells that a series has: small, and
/// searched by comparing. From `kSearched` cells on an index is kept beside them.
class CellTable {
 public:
  struct Entry {
    std::string name;
    CellPtr cell;
    MetricsType type;  ///< of the cell
  };

  /// The cell of `name`, or null. Looks first where the caller expects it: at place `likely`.
  const Entry* Find(const std::string& name, size_t likely) const {
    return likely < entries_.size() && SameText(entries_[likely].name, name) ? &entries_[likely]
                                                                             : Search(name);
  }
  /// Adds a cell, or replaces the one that has the name.
  const Entry& Set(const std::string& name, CellPtr cell);
  void Reserve(size_t cells) { entries_.reserve(cells); }

  const std::vector<Entry>& Entries() const { return entries_; }
  size_t Size() const { return entries_.size(); }
  CellMap ToMap() const;
  /// Bytes of names and pointers, as the statistics count them.
  size_t MemSize() const;

  /// What a cell is accounted for in the statistics beside its name.
  static constexpr size_t kPointerBytes = 16;

 private:
  static constexpr size_t kSearched = 12;
  using Index = std::unordered_map<std::string, size_t>;

  const Entry* Search(const std::string& name) const;
  void ExtendIndex();

  std::vector<Entry> entries_;
  std::unique_ptr<Index> index_;  ///< places by name; null up to `kSearched` cells
};

}  // namespace METRICS

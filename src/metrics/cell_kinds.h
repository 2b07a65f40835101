#pragma once

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "codec/tag_kv.h"
#include "util/metric_common.h"

namespace METRICS {

class MetricBasicData;

/// What a cell is made from, beside its kind.
struct CellSettings {
  bool use_ckms = false;            ///< of a timer: estimate its percentiles
  unsigned short bucket_count = 0;  ///< of a histogram: number of its bounds
};

/// How a cell of a suffixed metric goes out.
enum class SuffixForm : uint8_t {
  kNumbers,       ///< each number is a block of its own
  kRow,           ///< one block, whose columns name the numbers
  kRowIfAskedFor  ///< as `kRow` if its metric has a row per timer, else as `kNumbers`
};

/// All that the library knows about one kind of cell but what its class does.
///
/// A new kind is a class of cells, a value of `MetricsType`, and a row of the table.
struct CellKind {
  /// The most numbers with names that a kind reports.
  static constexpr size_t kMostNames = 10;

  /// How many numbers a cell reports, and columns a field of this kind takes in a row; `bounds` are
  /// those of a histogram.
  constexpr uint32_t Numbers(size_t bounds) const {
    return numbers + (per_bound ? static_cast<uint32_t>(bounds) : 0);
  }

  MetricsType type;
  const char* text;  ///< as `CovMetricTypeToStr` gives it
  uint32_t numbers;  ///< that a cell reports, without those of bounds
  bool per_bound;    ///< and one more for each bound
  /// Numbers of the point of the interval before: the total, then zeros. 0: there is no such point.
  uint32_t previous;
  SuffixForm suffix_form;
  bool compatible;  ///< a compatible metric may have it
  /// Names of the numbers, "" for one that goes by the name of its cell. Null from the first one
  /// on for a histogram, whose bounds make the names.
  const char* names[kMostNames];
  std::shared_ptr<MetricBasicData> (*make)(const CellSettings& settings);
};

/// By the numbers of the types, from `kGauge` on. That of `kMultiField` makes no cell.
extern const CellKind kCellKinds[];

/// The row of `type`. REQUIRES: `IsCellType(type)`.
inline const CellKind& KindOf(MetricsType type) {
  assert(IsCellType(type));
  return kCellKinds[static_cast<size_t>(type) - static_cast<size_t>(MetricsType::kGauge)];
}

/// The names of the numbers of `type` as strings, "" after the last one. Made at the first call for
/// any type, never destroyed: a flush may still run while the process exits. REQUIRES:
/// `IsCellType(type)`.
using NumberNames = std::array<std::string, CellKind::kMostNames>;
NumberNames& NamesOf(MetricsType type);

/// Appends the columns of a field `name` of type `type`, in the order in which its cell reports:
/// named after `name` and a dot, or with an empty `name`, as suffixes have it, alone. `bounds` are
/// those of a histogram. None, with an Error line, for a type that no cell has.
void AppendColumns(std::vector<lattice_kit::codec::FieldInfo>& columns, MetricsType type,
                   const std::string& name, const std::vector<double>& bounds);

/// The row of `type`, or null for types that no cell has.
inline const CellKind* FindKind(MetricsType type) {
  return IsCellType(type) ? &KindOf(type) : nullptr;
}

}  // namespace METRICS

#pragma once

#include <memory>
#include <string>
#include <unordered_map>

namespace METRICS {

class MetricBasicData;

/// A cell: the aggregate of one suffix or field of one series. Its class is the library's.
using CellPtr = std::shared_ptr<MetricBasicData>;
/// The cells of one series by the names of their suffixes or fields.
using CellMap = std::unordered_map<std::string, CellPtr>;

}  // namespace METRICS

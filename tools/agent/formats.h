#pragma once

#include <memory>

#include "agent/forward_options.h"
#include "agent/point_format.h"
#include "agent/series_table.h"

namespace tidegate::agent {

// The form of a destination. `table` is for the series of those that have a table of their own; its
// label of the process is for all.
std::unique_ptr<const PointFormat> MakeFormat(const ForwardOptions& options,
                                              const SeriesTable::Options& table);

}  // namespace tidegate::agent

#pragma once

#include <string>
#include <string_view>

#include "agent/point_mapping.h"

namespace tidegate::agent {

// What HELP says of a family of the page: where it comes from, as SourceOf does, and what its
// numbers mean, with their unit as far as it is known. The last columns of a timer in ten gauges
// are known by their names alone.
std::string HelpOf(Kind kind, std::string_view name, std::string_view column);

}  // namespace tidegate::agent

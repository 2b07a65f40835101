#pragma once

#include <string>
#include <string_view>

#include "agent/point_mapping.h"

namespace tidegate::agent {

// The text of HELP for a family of the page: its source, as SourceOf gives it, and the meaning of
// its numbers, with their unit as far as it is known. The last columns of a timer in ten gauges are
// known by their names alone.
std::string HelpOf(Kind kind, std::string_view name, std::string_view column);

}  // namespace tidegate::agent

#pragma once

#include <string>
#include <string_view>

// Names as the text format of Prometheus takes them. Free functions without state, safe from any
// number of threads.

namespace tidegate::agent {

// Every byte that is no letter, digit, "_" or ":" becomes "_"; a digit in front, or nothing at all,
// gets a "_" before it.
std::string MetricNameOf(std::string_view name);

// The same without ":"; a name that would begin with "__", which is reserved, gets "exported"
// before it. Allocates nothing where `fitted` has held as much before.
void AssignLabelName(std::string_view name, std::string* fitted);

}  // namespace tidegate::agent

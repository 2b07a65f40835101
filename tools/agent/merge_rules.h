#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "agent/packet_reader.h"
#include "agent/point_mapping.h"

// How the numbers are merged that several processes, or several series that rules make one, report
// for one series at one time.

namespace tidegate::agent {

enum class GaugeMerge { kLast, kSum, kMax };

// By its word in the settings, as "sum"; nothing for any other.
std::optional<GaugeMerge> GaugeMergeOf(std::string_view word);

constexpr bool IsTotal(MergeRule rule) {
  return rule == MergeRule::kTotal || rule == MergeRule::kDeltaTotal;
}
// Also one that may turn out to be one.
constexpr bool MayBeTotal(MergeRule rule) {
  return IsTotal(rule) || rule == MergeRule::kGaugeOrRate;
}

// Of each column of a block of this kind; of its one number if it has no columns. A block that is
// the first of the ten of a timer is of kind kTimerRow. kMeter counts as a total.
std::vector<MergeRule> RulesOf(Kind kind, const Block& block);

// Whether blocks[i], of kind kMeter, says how fast the total of the block before it grows.
bool IsMeterRate(const std::vector<Block>& blocks, size_t i);

// Takes `value` of a process, in addition to `merged` of others, by a rule that is not one of
// totals. A finite number wins over one that is not.
double Merge(MergeRule rule, GaugeMerge gauge, double merged, double value);

}  // namespace tidegate::agent

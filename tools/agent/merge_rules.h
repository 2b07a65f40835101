#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "agent/packet_reader.h"
#include "agent/point_mapping.h"

// What becomes of the numbers that several processes report for one series at one time.

namespace tidegate::agent {

enum class GaugeMerge { kLast, kSum, kMax };

// Of one column.
enum class MergeRule : uint8_t {
  kSum,          // happened in the interval: a rate, an increase, a sum, a count, a bucket
  kTotal,        // cumulative; merged as the increases of all processes
  kDeltaTotal,   // likewise; two columns further is what it increased by in the interval
  kGauge,        // by GaugeMerge
  kGaugeOrRate,  // a column of a row that is one of these or a total, which only points of the
                 // interval before can tell; merged as a gauge until then
  kMin,
  kMax,
  kAverage,   // the sum and the count follow it
  kQuantile,  // of one process alone
};

constexpr bool IsTotal(MergeRule rule) {
  return rule == MergeRule::kTotal || rule == MergeRule::kDeltaTotal;
}
// Also one that may turn out to be one.
constexpr bool MayBeTotal(MergeRule rule) {
  return IsTotal(rule) || rule == MergeRule::kGaugeOrRate;
}

// Of kTimerColumns.
std::vector<MergeRule> TimerRules();

// Of each column of a block of this kind; of its one number if it has no columns. kMeter counts as
// a total.
std::vector<MergeRule> RulesOf(Kind kind, const Block& block);

// Whether blocks[i], of kind kMeter, says how fast the total of the block before it grows.
bool IsMeterRate(const std::vector<Block>& blocks, size_t i);

// Takes `value` of a process, in addition to `merged` of others, by a rule that is not one of
// totals. What is not finite gives way to what is.
double Merge(MergeRule rule, GaugeMerge gauge, double merged, double value);

}  // namespace tidegate::agent

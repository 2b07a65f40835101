#include "agent/merge_rules.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <string>
#include <string_view>

namespace tidegate::agent {
namespace {

constexpr std::string_view kRatePart = ".rate";

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// Whether the columns from `first` on are those of the field `field`, each after a dot.
template <size_t size>
bool HasParts(const std::vector<Field>& columns, size_t first, std::string_view field,
              const std::string_view (&parts)[size]) {
  if (columns.size() - first < size) return false;
  for (size_t i = 0; i < size; ++i) {
    const std::string_view name = columns[first + i].name;
    if (name.size() != field.size() + 1 + parts[i].size() || !EndsWith(name, parts[i]) ||
        name[field.size()] != '.' || name.substr(0, field.size()) != field) {
      return false;
    }
  }
  return true;
}

bool IsOfHistogram(std::string_view column) {
  constexpr std::string_view kPrefix = "hist:";
  return column.substr(0, kPrefix.size()) == kPrefix &&
         (column.find(":b-") != std::string_view::npos || EndsWith(column, ":sum") ||
          EndsWith(column, ":count"));
}

const std::vector<MergeRule>& DeltaRules() {
  static const std::vector<MergeRule> rules = {MergeRule::kDeltaTotal, MergeRule::kSum,
                                               MergeRule::kSum};
  return rules;
}

// Names are the only sign of what the columns of a row are.
std::vector<MergeRule> RowRules(const std::vector<Field>& columns) {
  std::vector<MergeRule> rules;
  rules.reserve(columns.size());
  const auto add = [&](const std::vector<MergeRule>& more) {
    rules.insert(rules.end(), more.begin(), more.end());
  };
  while (rules.size() < columns.size()) {
    const size_t i = rules.size();
    const std::string_view name = columns[i].name;
    const std::string_view field = name.substr(0, std::min(name.rfind('.'), name.size()));
    if (IsOfHistogram(name)) {
      rules.push_back(MergeRule::kSum);
    } else if (HasParts(columns, i, field, kTimerColumns)) {
      add(TimerRules());
    } else if (HasParts(columns, i, field, kDeltaColumns)) {
      add(DeltaRules());
    } else if (i + 1 < columns.size() &&
               columns[i + 1].name == std::string(name).append(kRatePart)) {
      add({MergeRule::kTotal, MergeRule::kSum});
    } else {
      rules.push_back(MergeRule::kGaugeOrRate);
    }
  }
  return rules;
}

}  // namespace

std::vector<MergeRule> TimerRules() {
  std::vector<MergeRule> rules(std::size(kTimerColumns), MergeRule::kQuantile);
  rules[kTimerMin] = MergeRule::kMin;
  rules[kTimerMax] = MergeRule::kMax;
  rules[kTimerAvg] = MergeRule::kAverage;
  rules[kTimerSum] = rules[kTimerCount] = MergeRule::kSum;
  return rules;
}

std::vector<MergeRule> RulesOf(Kind kind, const Block& block) {
  switch (kind) {
    case Kind::kGauge:
      return {MergeRule::kGauge};
    case Kind::kRate:
      return {MergeRule::kSum};
    case Kind::kCounter:
    case Kind::kMeter:
      return {MergeRule::kTotal};
    case Kind::kDeltaCounter:
      return DeltaRules();
    case Kind::kTimerRow:
      return TimerRules();
    case Kind::kHistogram:
      return std::vector<MergeRule>(block.fields.size(), MergeRule::kSum);
    case Kind::kRow:
      break;
  }
  return RowRules(block.fields);
}

bool IsMeterRate(const std::vector<Block>& blocks, size_t i) {
  const auto is_rate_of = [&](size_t rate, size_t total) {
    const std::string& name = blocks[rate].name;
    return blocks[rate].wire_type == blocks[total].wire_type && EndsWith(name, kRatePart) &&
           std::string_view(name).substr(0, name.size() - kRatePart.size()) == blocks[total].name;
  };
  if (i > 0 && is_rate_of(i, i - 1)) return true;
  if (i + 1 < blocks.size() && is_rate_of(i + 1, i)) return false;
  return EndsWith(blocks[i].name, kRatePart);
}

double Merge(MergeRule rule, GaugeMerge gauge, double merged, double value) {
  if (!std::isfinite(value)) return merged;
  if (!std::isfinite(merged)) return value;
  switch (rule) {
    case MergeRule::kSum:
      return merged + value;
    case MergeRule::kMin:
      return std::min(merged, value);
    case MergeRule::kMax:
      return std::max(merged, value);
    case MergeRule::kGauge:
    case MergeRule::kGaugeOrRate:
      if (gauge == GaugeMerge::kLast) return value;
      return gauge == GaugeMerge::kSum ? merged + value : std::max(merged, value);
    case MergeRule::kTotal:
    case MergeRule::kDeltaTotal:
    case MergeRule::kAverage:
    case MergeRule::kQuantile:
      break;
  }
  return merged;
}

}  // namespace tidegate::agent

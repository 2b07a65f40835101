#include "agent/merge_rules.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>

#include "agent/ends_with.h"

namespace tidegate::agent {
namespace {

// Whether the columns from `first` on are those of the field `field`, each after a dot.
bool HasParts(const std::vector<Field>& columns, size_t first, std::string_view field,
              ConstList<ColumnRow> parts) {
  if (columns.size() - first < parts.size()) return false;
  for (size_t i = 0; i < parts.size(); ++i) {
    const std::string_view name = columns[first + i].name;
    const std::string_view part = parts[i].name;
    if (name.size() != field.size() + 1 + part.size() || !EndsWith(name, part) ||
        name[field.size()] != '.' || name.substr(0, field.size()) != field) {
      return false;
    }
  }
  return true;
}

bool IsOfHistogram(std::string_view column) {
  return column.substr(0, kHistogramMark.size()) == kHistogramMark &&
         (column.find(":b-") != std::string_view::npos || EndsWith(column, ":sum") ||
          EndsWith(column, ":count"));
}

// Names are the only sign of what the columns of a row are.
std::vector<MergeRule> RowRules(const std::vector<Field>& columns) {
  std::vector<MergeRule> rules;
  rules.reserve(columns.size());
  const auto add = [&](ConstList<ColumnRow> parts) {
    for (const ColumnRow& part : parts) rules.push_back(part.merge);
  };
  while (rules.size() < columns.size()) {
    const size_t i = rules.size();
    const std::string_view name = columns[i].name;
    const std::string_view field = name.substr(0, std::min(name.rfind('.'), name.size()));
    if (IsOfHistogram(name)) {
      rules.push_back(MergeRule::kSum);
    } else if (HasParts(columns, i, field, kTimerColumns)) {
      add(kTimerColumns);
    } else if (HasParts(columns, i, field, kDeltaColumns)) {
      add(kDeltaColumns);
    } else if (i + 1 < columns.size() &&
               columns[i + 1].name == std::string(name).append(kMeterRatePart)) {
      rules.insert(rules.end(), {MergeRule::kTotal, MergeRule::kSum});
    } else {
      rules.push_back(MergeRule::kGaugeOrRate);
    }
  }
  return rules;
}

}  // namespace

std::optional<GaugeMerge> GaugeMergeOf(std::string_view word) {
  if (word == "last") return GaugeMerge::kLast;
  if (word == "sum") return GaugeMerge::kSum;
  if (word == "max") return GaugeMerge::kMax;
  return std::nullopt;
}

std::vector<MergeRule> RulesOf(Kind kind, const Block& block) {
  const KindRow& row = RowOf(kind);
  if (row.form == ColumnForm::kAny) return RowRules(block.fields);
  // The ten blocks of a timer have no columns.
  const size_t columns = row.form == ColumnForm::kBounds ? block.fields.size() : row.columns.size();
  std::vector<MergeRule> rules;
  rules.reserve(columns);
  for (size_t i = 0; i < columns; ++i) rules.push_back(ColumnAt(row, i, columns).merge);
  return rules;
}

bool IsMeterRate(const std::vector<Block>& blocks, size_t i) {
  const auto is_rate_of = [&](size_t rate, size_t total) {
    const std::string& name = blocks[rate].name;
    return blocks[rate].wire_type == blocks[total].wire_type && EndsWith(name, kMeterRatePart) &&
           std::string_view(name).substr(0, name.size() - kMeterRatePart.size()) ==
               blocks[total].name;
  };
  if (i > 0 && is_rate_of(i, i - 1)) return true;
  if (i + 1 < blocks.size() && is_rate_of(i + 1, i)) return false;
  return EndsWith(blocks[i].name, kMeterRatePart);
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

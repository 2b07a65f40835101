#include "agent/families.h"

#include <algorithm>
#include <set>
#include <utility>

#include "agent/ends_with.h"
#include "agent/fitted_names.h"

namespace tidegate::agent {

std::vector<FamilyPart> FamiliesOf(Kind kind, std::string_view name,
                                   const std::vector<std::string>& columns) {
  const std::string fitted = MetricNameOf(name);
  const KindRow& row = RowOf(kind);
  std::vector<FamilyPart> families;
  const auto add = [&](const FamilyRow& family, size_t column, std::string_view end) {
    const bool has_end = family.type == FamilyType::kCounter && EndsWith(fitted, end);
    std::string family_name;
    family_name.reserve(fitted.size() + end.size());
    family_name.append(fitted).append(has_end ? "" : end);
    families.push_back({std::move(family_name), family.type, column});
  };
  if (row.form != ColumnForm::kAny) {
    families.reserve(row.families.size());
    for (const FamilyRow& family : row.families) add(family, family.column, family.suffix);
    return families;
  }
  families.reserve(columns.size());
  // Nothing keeps a row from having two columns of one name.
  std::set<std::string_view> seen;
  for (size_t i = 0; i < columns.size(); ++i) {
    if (!seen.insert(columns[i]).second) continue;
    add(row.families[0], i, MetricNameOf(std::string(row.families[0].suffix) + columns[i]));
  }
  return families;
}

const FamilyForm& FormOf(FamilyType type) {
  static constexpr std::string_view kOfSingle[] = {""};
  static constexpr std::string_view kOfSummary[] = {"", kSumEnd, kCountEnd};
  static constexpr std::string_view kOfHistogram[] = {"", kSumEnd, kCountEnd, kBucketEnd};
  static constexpr FamilyForm kForms[] = {{"gauge", kOfSingle, false},
                                          {"counter", kOfSingle, false},
                                          {"untyped", kOfSingle, false},
                                          {"summary", kOfSummary, true},
                                          {"histogram", kOfHistogram, true}};
  return kForms[static_cast<size_t>(type)];
}

const FamilyRow& FamilyOf(Kind kind, std::string_view column) {
  const KindRow& row = RowOf(kind);
  const FamilyRow* const of_column =
      std::find_if(row.families.begin(), row.families.end(), [&](const FamilyRow& family) {
        const bool whole = FormOf(family.type).whole;
        return column == (whole ? std::string_view() : row.columns[family.column].name);
      });
  return of_column == row.families.end() ? row.families[0] : *of_column;
}

std::string SourceOf(Kind kind, std::string_view name, std::string_view column) {
  const KindRow& row = RowOf(kind);
  std::string source;
  if (row.form == ColumnForm::kAny) {
    source.append("column ").append(column).append(" of ");
  } else {
    source = FamilyOf(kind, column).source;
  }
  return source.append(row.noun).append(" ").append(name);
}

}  // namespace tidegate::agent

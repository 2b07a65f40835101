#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "agent/kinds.h"

// The families of the page of metrics in which a metric appears. Free functions without state, safe
// from any number of threads.

namespace tidegate::agent {

// The ends of names of lines in summaries and histograms.
inline constexpr std::string_view kSumEnd = "_sum";
inline constexpr std::string_view kCountEnd = "_count";
inline constexpr std::string_view kBucketEnd = "_bucket";

// One family of the page that shows a metric, or a part of it.
struct FamilyPart {
  std::string name;
  FamilyType type;
  size_t column;  // that the value is from; of summaries and histograms 0
};

// The families of a metric with these columns, which has at least one. `name` and `columns` are
// those of the wire.
std::vector<FamilyPart> FamiliesOf(Kind kind, std::string_view name,
                                   const std::vector<std::string>& columns);

// The form of a family and of its lines.
struct FamilyForm {
  std::string_view type;                 // in the text
  ConstList<std::string_view> suffixes;  // of its name, that of each line ends with one
  bool whole;                            // a line shows several columns
};
const FamilyForm& FormOf(FamilyType type);

// The family of a kind that shows this column of it. `column` is empty for summaries and
// histograms.
const FamilyRow& FamilyOf(Kind kind, std::string_view column);

// Says what a family shows: "column c of row r". `column` is the name of the family's column, empty
// for summaries and histograms.
std::string SourceOf(Kind kind, std::string_view name, std::string_view column);

}  // namespace tidegate::agent

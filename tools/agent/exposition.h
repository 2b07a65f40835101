#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/family_samples.h"
#include "agent/health.h"

// The text format of Prometheus, version 0.0.4: what the lines of a family and of its series look
// like. Free functions without state, safe from any number of threads. Numbers are written alike in
// every locale.

namespace tidegate::agent {

// Appends the value of a label as it is shown, before escapes. Every byte that is not UTF-8, a NUL,
// and a backslash before an x are written as utf8.h says.
void AppendText(std::string_view text, std::string* out);

// Appends the lines of HELP, with the text of SourceOf, and TYPE.
void AppendFamilyHead(const FamilyPart& family, std::string_view source, std::string* page);

// How long a text becomes as the value of a label, which stands in quotes, or after HELP.
size_t EscapedSize(std::string_view text, bool quotes);

// How long the parts of a page become, every escape included.
size_t HeadSize(const FamilyPart& family, std::string_view source);
size_t LabelSize(std::string_view key, std::string_view value);
// Of a series in a family: how many lines it takes at most, and how long they are at most beside
// the labels of each.
struct LinesSize {
  size_t lines;
  size_t bytes;
};
LinesSize SeriesSize(const FamilyPart& family, const std::vector<double>& bounds);

// Writes the lines of series.
//
// Not thread-safe; for one page. Borrows the page.
class SampleWriter {
 public:
  SampleWriter(bool timestamps, std::string* page) : timestamps_(timestamps), page_(page) {}

  // The labels of the samples that follow.
  void BeginLabels() { labels_.clear(); }
  void AddLabel(std::string_view key, std::string_view value);

  // The lines of a series, as ForEachSample has them.
  void Samples(const FamilyPart& family, const std::vector<double>& bounds, const Cell* cells);
  // One line of a number that a double might not hold, without a time.
  void Integer(std::string_view name, uint64_t value);

 private:
  // Up to the number.
  void BeginLine(std::string_view name, const FamilySample& sample);
  void Line(std::string_view name, const FamilySample& sample);

  const bool timestamps_;
  std::string* const page_;
  std::string labels_;  // as they stand between the braces
  std::string label_;   // kept for its memory
};

// Appends the agent's numbers on itself.
void AppendHealth(const Health& health, std::string* page);

}  // namespace tidegate::agent

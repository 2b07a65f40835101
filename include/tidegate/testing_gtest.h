#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "tidegate/testing.h"

// Matchers of GoogleTest for `tidegate::testing::Receiver`.

namespace tidegate::testing {

/// What `HasPoint` makes. A plain value.
class PointMatcher {
 public:
  using is_gtest_matcher = void;  ///< for GoogleTest

  /// See `HasPoint`.
  PointMatcher(std::string name, Tags tags, std::string field, ::testing::Matcher<double> value)
      : name_(std::move(name)),
        tags_(std::move(tags)),
        field_(std::move(field)),
        value_(std::move(value)) {}

  /// Whether there is such a point; if not, `out` gets the numbers that came nearest.
  bool MatchAndExplain(const Receiver& receiver, std::ostream* out) const {
    const std::vector<double> values = receiver.Values(name_, tags_, field_);
    const bool matches = std::any_of(values.begin(), values.end(),
                                     [this](double value) { return value_.Matches(value); });
    if (!matches && out != nullptr) {
      *out << "which has " << (values.empty() ? "none" : "only ")
           << (values.empty() ? std::string() : ::testing::PrintToString(values));
    }
    return matches;
  }
  /// For the message of a test that fails.
  void DescribeTo(std::ostream* out) const { Describe(*out << "has"); }
  /// The same for `Not(HasPoint(...))`.
  void DescribeNegationTo(std::ostream* out) const { Describe(*out << "does not have"); }

 private:
  void Describe(std::ostream& out) const {
    out << " a point " << name_ << '{';
    const char* separator = "";
    for (const MetricTag& tag : tags_.List()) {
      out << separator << tag.key << '=' << tag.value;
      separator = ",";
    }
    out << '}' << (field_.empty() ? "" : " with the field ") << field_ << " whose number ";
    value_.DescribeTo(&out);
  }

  std::string name_;
  Tags tags_;
  std::string field_;
  ::testing::Matcher<double> value_;
};

/// Matches a receiver at which a number has arrived as `Receiver::Values` finds it; `value` is a
/// number or a matcher of numbers:
///
///     EXPECT_THAT(receiver, HasPoint("shop.requests", {{"method", "get"}}, 3));
///     EXPECT_THAT(receiver, HasPoint("shop.latency", {}, "avg", testing::Lt(500)));
///
/// The message of a failure lists all points.
inline PointMatcher HasPoint(std::string name, Tags tags, ::testing::Matcher<double> value) {
  return {std::move(name), std::move(tags), {}, std::move(value)};
}
/// The same for a field.
inline PointMatcher HasPoint(std::string name, Tags tags, std::string field,
                             ::testing::Matcher<double> value) {
  return {std::move(name), std::move(tags), std::move(field), std::move(value)};
}
/// The same with any number.
inline PointMatcher HasPoint(std::string name, Tags tags = {}) {
  return {std::move(name), std::move(tags), {}, ::testing::A<double>()};
}

}  // namespace tidegate::testing

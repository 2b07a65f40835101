#pragma once

#include <string>
#include <string_view>

namespace tidegate::agent {

// The words for numbers that have no digits.
struct NumberWords {
  std::string_view nan;
  std::string_view infinity;
  std::string_view minus_infinity;
};

// Appends the shortest text that reads back as the same double, but for whole numbers up to 2^53 in
// size always all of their digits: "100000", not "1e+05". The sign of a NaN is left out. The same
// in every locale.
void AppendNumber(double value, const NumberWords& words, std::string* out);

// A number that is known to be finite.
inline void AppendFinite(double value, std::string* out) { AppendNumber(value, {}, out); }

}  // namespace tidegate::agent

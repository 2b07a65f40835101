#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Texts for a terminal, in the character set of the locale that the program has set.

namespace tidegate::agent {

// `text` with every byte that a terminal would obey, or not show, as \x and two digits. So a name
// that a service chose cannot move the cursor, nor change colours.
std::string Harmless(std::string_view text);

// How many columns a text of Harmless takes.
size_t ColumnsOf(std::string_view text);

// The beginning of a text of Harmless that takes at most so many columns.
std::string_view CutTo(std::string_view text, size_t columns);

// "3 days 2 h", "5 min 10 s", "4 s".
std::string AgeText(double seconds);

// With one digit after the point if it is below 100, and without an exponent: "12.5", "1234".
std::string RateText(double rate);

}  // namespace tidegate::agent

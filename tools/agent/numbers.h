#pragma once

#include <string>

namespace tidegate::agent {

// Appends the shortest text that reads back as the same double, but for whole numbers up to 2^53 in
// size always all of their digits: "100000", not "1e+05". Infinities are "inf" and "-inf". The same
// in every locale.
void AppendDouble(double value, std::string* out);

}  // namespace tidegate::agent

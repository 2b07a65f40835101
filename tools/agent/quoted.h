#pragma once

#include <string>
#include <string_view>

namespace tidegate::agent {

// Appends `text` in double quotes, printable ASCII with C escapes whatever it holds.
void AppendQuoted(std::string_view text, std::string* out);

}  // namespace tidegate::agent

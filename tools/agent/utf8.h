#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Names and values as the agent hands them on. A byte that cannot stand there, such as one that is
// not UTF-8, becomes \x and two lower-case digits of hexadecimal; a backslash that could be taken
// for the begin of that form is written so itself. Two texts thus never become one.

namespace tidegate::agent {

// The bytes of the character of UTF-8 that `text` begins with, or 0 if it begins with none.
// REQUIRES: `text` is not empty.
size_t CharacterSize(std::string_view text);

// Appends `byte` in that form: "\xe9".
void AppendHexByte(char byte, std::string* out);

}  // namespace tidegate::agent

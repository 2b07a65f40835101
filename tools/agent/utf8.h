#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

// Names and values as the agent hands them on. A byte that cannot stand there, such as one that is
// not UTF-8, becomes \x and two lower-case hexadecimal digits. A backslash that could be taken for
// the beginning of that form is written in it, too. So two different texts stay different.

namespace tidegate::agent {

// The bytes of the character of UTF-8 that `text` begins with, or 0 if it begins with none.
// REQUIRES: `text` is not empty.
size_t CharacterSize(std::string_view text);

// Appends `byte` in that form: "\xe9".
void AppendHexByte(char byte, std::string* out);

// Calls handle(rest, size) for each character of `text`: with the text from there on, and the bytes
// of the character, 0 for a byte that begins none.
template <typename Handle>
void ForEachCharacter(std::string_view text, const Handle& handle) {
  while (!text.empty()) {
    const size_t size = CharacterSize(text);
    handle(text, size);
    text.remove_prefix(std::max<size_t>(size, 1));
  }
}

}  // namespace tidegate::agent

#include "agent/line_escape.h"

#include <algorithm>
#include <cstddef>

#include "agent/utf8.h"

namespace tidegate::agent {
namespace {

bool IsEscapedIn(LinePart part, char c) {
  return c == ',' || c == ' ' || (c == '=' && part != LinePart::kMeasurement);
}

bool IsPlain(char c) {
  return c > ' ' && c != '\x7f' && c != ',' && c != '=' && c != '\\' && c != '"' && c != '#';
}

bool IsCarried(LinePart part, std::string_view text) {
  const char c = text.front();
  // Receivers differ in what a backslash means in front of itself, and at the end it would join the
  // next character.
  if (c == '\\') return text.size() > 1 && IsPlain(text[1]) && text[1] != 'x';
  if (c == '"') return part != LinePart::kField;
  return c < 0 || (c >= ' ' && c != '\x7f');
}

}  // namespace

void AppendEscaped(LinePart part, std::string_view text, std::string* out) {
  if (text.empty()) {
    *out += "\\x";
    return;
  }
  if (std::all_of(text.begin(), text.end(), IsPlain)) {
    *out += text;
    return;
  }
  if (part == LinePart::kMeasurement && text.front() == '#') {
    AppendHexByte('#', out);
    text.remove_prefix(1);
  }
  while (!text.empty()) {
    const size_t size = CharacterSize(text);
    if (size == 0 || !IsCarried(part, text)) {
      AppendHexByte(text.front(), out);
    } else {
      if (IsEscapedIn(part, text.front())) *out += '\\';
      *out += text.substr(0, size);
    }
    text.remove_prefix(std::max<size_t>(size, 1));
  }
}

}  // namespace tidegate::agent

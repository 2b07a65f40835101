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
  // Receivers differ in what a backslash means before itself, and at the end it would join the
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
  ForEachCharacter(text, [part, out](std::string_view rest, size_t size) {
    if (size == 0 || !IsCarried(part, rest)) {
      AppendHexByte(rest.front(), out);
    } else {
      if (IsEscapedIn(part, rest.front())) *out += '\\';
      *out += rest.substr(0, size);
    }
  });
}

}  // namespace tidegate::agent

#include "agent/line_escape.h"

#include <algorithm>
#include <cstddef>

namespace tidegate::agent {
namespace {

bool IsEscapedIn(LinePart part, char c) {
  return c == ',' || c == ' ' || (c == '=' && part != LinePart::kMeasurement);
}

bool IsPlain(char c) {
  return c > ' ' && c != '\x7f' && c != ',' && c != '=' && c != '\\' && c != '"' && c != '#';
}

// How many bytes at the front of `text` are one character of UTF-8 beyond ASCII; 0 if they are
// none.
size_t Utf8Length(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const size_t length = byte(0) >= 0xf0 ? 4 : byte(0) >= 0xe0 ? 3 : 2;
  if (byte(0) < 0xc2 || byte(0) > 0xf4 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  // Too long for what they say, half of a pair, or beyond the last character.
  const bool bad = (byte(0) == 0xe0 && byte(1) < 0xa0) || (byte(0) == 0xed && byte(1) > 0x9f) ||
                   (byte(0) == 0xf0 && byte(1) < 0x90) || (byte(0) == 0xf4 && byte(1) > 0x8f);
  return bad ? 0 : length;
}

// Appends the character at the front of `text` and returns its length. Sets `replaced` if it became
// another one.
size_t AppendCharacter(LinePart part, std::string_view text, std::string* out, bool* replaced) {
  const char c = text.front();
  if (static_cast<unsigned char>(c) >= 0x80) {
    const size_t length = Utf8Length(text);
    if (length > 0) {
      *out += text.substr(0, length);
      return length;
    }
    *out += '_';
    *replaced = true;
    return 1;
  }
  // Receivers differ in what a backslash means in front of itself, and at the end it would join the
  // next character.
  const bool escape =
      c == '\\' && (text.size() == 1 || text[1] == '\\' || IsEscapedIn(LinePart::kTag, text[1]));
  if (c < ' ' || c == '\x7f' || escape || (c == '"' && part == LinePart::kField)) {
    *out += '_';
    *replaced = true;
    return 1;
  }
  if (IsEscapedIn(part, c)) *out += '\\';
  *out += c;
  return 1;
}

}  // namespace

bool AppendEscaped(LinePart part, std::string_view text, std::string* out) {
  if (IsPlainText(text)) {
    *out += text;
    return false;
  }
  bool replaced = text.empty() || (part == LinePart::kMeasurement && text.front() == '#');
  if (replaced) {
    *out += '_';
    text.remove_prefix(std::min<size_t>(text.size(), 1));
  }
  while (!text.empty()) text.remove_prefix(AppendCharacter(part, text, out, &replaced));
  return replaced;
}

bool IsPlainText(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsPlain);
}

}  // namespace tidegate::agent

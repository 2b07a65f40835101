#include "agent/quoted.h"

namespace tidegate::agent {
namespace {

void AppendEscaped(char c, std::string* out) {
  constexpr char kHex[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  if (c == '"' || c == '\\') {
    *out += {'\\', c};
  } else if (c == '\n') {
    *out += "\\n";
  } else if (byte < ' ' || byte > '~') {
    *out += {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]};
  } else {
    *out += c;
  }
}

}  // namespace

void AppendQuoted(std::string_view text, std::string* out) {
  *out += '"';
  for (char c : text) AppendEscaped(c, out);
  *out += '"';
}

}  // namespace tidegate::agent

#include "agent/quoted.h"

#include "agent/utf8.h"

namespace tidegate::agent {
namespace {

void AppendEscaped(char c, std::string* out) {
  const auto byte = static_cast<unsigned char>(c);
  if (c == '"' || c == '\\') {
    *out += {'\\', c};
  } else if (c == '\n') {
    *out += "\\n";
  } else if (byte < ' ' || byte > '~') {
    AppendHexByte(c, out);
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

#include "agent/utf8.h"

namespace tidegate::agent {

size_t CharacterSize(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return 1;
  const size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < size) return 0;
  for (size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  // Too long a form, a surrogate, or beyond the last character.
  const unsigned char second = byte(1);
  const bool odd = (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
                   (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f);
  return odd ? 0 : size;
}

void AppendHexByte(char byte, std::string* out) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  *out += {'\\', 'x', kDigits[value >> 4], kDigits[value & 15]};
}

}  // namespace tidegate::agent

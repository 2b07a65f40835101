#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace tidegate::agent {

// Texts in a key, one after the other: each after its length, so that two lists of texts never make
// the same key.

inline size_t SizedBytes(std::string_view text) { return sizeof(uint32_t) + text.size(); }

// Returns the end of what it wrote, SizedBytes further.
inline char* PutSized(std::string_view text, char* to) {
  const auto size = static_cast<uint32_t>(text.size());
  std::memcpy(to, &size, sizeof(size));
  std::memcpy(to + sizeof(size), text.data(), text.size());
  return to + sizeof(size) + text.size();
}

// Takes the first text off `from`, which holds one.
inline std::string_view TakeSized(std::string_view* from) {
  uint32_t size = 0;
  std::memcpy(&size, from->data(), sizeof(size));
  const std::string_view text = from->substr(sizeof(size), size);
  from->remove_prefix(sizeof(size) + size);
  return text;
}

}  // namespace tidegate::agent

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace METRICS {

// Comparing texts of some ten bytes, as names and tag values are: by whole words, the last of which
// overlaps the one before, and without a call.

template <class Word>
inline uint64_t LoadWord(const char* from) {
  Word word;
  std::memcpy(&word, from, sizeof(word));
  return word;
}

/// Whether the `size` bytes at `x` and at `y` are the same.
inline bool SameBytes(const char* x, const char* y, size_t size) {
  if (size > 32) {
    return std::memcmp(x, y, size) == 0;
  }
  if (size >= 8) {
    for (size_t i = 0; i + 8 < size; i += 8) {
      if (LoadWord<uint64_t>(x + i) != LoadWord<uint64_t>(y + i)) {
        return false;
      }
    }
    return LoadWord<uint64_t>(x + size - 8) == LoadWord<uint64_t>(y + size - 8);
  }
  if (size >= 4) {
    return LoadWord<uint32_t>(x) == LoadWord<uint32_t>(y) &&
           LoadWord<uint32_t>(x + size - 4) == LoadWord<uint32_t>(y + size - 4);
  }
  for (size_t i = 0; i < size; ++i) {
    if (x[i] != y[i]) {
      return false;
    }
  }
  return true;
}

/// As `a == b`.
inline bool SameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && SameBytes(a.data(), b.data(), a.size());
}

}  // namespace METRICS

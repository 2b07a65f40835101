#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace METRICS {

// Comparing and hashing texts of some ten bytes, as names and tag values are: by whole words, the
// last of which overlaps the one before, and without a call.

template <class Word>
inline uint64_t LoadWord(const char* from) {
  Word word;
  std::memcpy(&word, from, sizeof(word));
  return word;
}

/// As `a == b`.
inline bool SameText(const std::string& a, const std::string& b) {
  const size_t size = a.size();
  if (size != b.size()) {
    return false;
  }
  const char* const x = a.data();
  const char* const y = b.data();
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

/// Adds a word to a hash: a long product, folded.
inline uint64_t MixWord(uint64_t hash, uint64_t word) {
  __extension__ using Product = unsigned __int128;
  const Product product = static_cast<Product>(hash ^ word) * 0x9e3779b97f4a7c15U;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

/// Adds `text`, its length included, to a hash. Of no meaning outside of this process.
inline uint64_t HashText(const std::string& text, uint64_t seed) {
  const size_t size = text.size();
  const char* const from = text.data();
  uint64_t hash = MixWord(seed, size + 1);
  if (size >= 8) {
    for (size_t i = 0; i + 8 < size; i += 8) {
      hash = MixWord(hash, LoadWord<uint64_t>(from + i));
    }
    return MixWord(hash, LoadWord<uint64_t>(from + size - 8));
  }
  if (size >= 4) {
    return MixWord(hash, LoadWord<uint32_t>(from) | LoadWord<uint32_t>(from + size - 4) << 32);
  }
  for (size_t i = 0; i < size; ++i) {
    hash = MixWord(hash, static_cast<unsigned char>(from[i]));
  }
  return hash;
}

}  // namespace METRICS

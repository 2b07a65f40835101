#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "util/short_text.h"

namespace METRICS {

/// Random numbers of this process, so that nobody can choose texts that collide.
struct alignas(32) HashSeed {
  uint64_t whole;  ///< for all words but the last two
  uint64_t last;
  uint64_t start;
};

/// Made before any initialisation of a program without a priority of its own.
extern const HashSeed g_hash_seed;

constexpr uint64_t kHashFactor = 0x9e3779b97f4a7c15;  // odd; 2^64 over the golden ratio

/// The upper and the lower half of a product of 128 bits.
inline uint64_t FoldedProduct(uint64_t a, uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

/// A number for a text, by two words for a multiplication; the last two words overlap the ones
/// before (Wang Yi et al., "Modern Non-Cryptographic Hash Function and Pseudorandom Number
/// Generator", the fold of "wyhash"). Differs from process to process. Short texts that are much
/// alike differ in some of its bits only: for `MixedHash`.
inline uint64_t TextProduct(std::string_view text) {
  const HashSeed& seed = g_hash_seed;
  const char* from = text.data();
  size_t left = text.size();
  uint64_t state = seed.start + left * kHashFactor;
  for (; left > 16; left -= 16, from += 16) {
    state =
        FoldedProduct(LoadWord<uint64_t>(from) ^ seed.whole, LoadWord<uint64_t>(from + 8) ^ state);
  }
  uint64_t first = 0;
  uint64_t second = 0;
  if (text.size() > 16) {
    first = LoadWord<uint64_t>(from + left - 16);
    second = LoadWord<uint64_t>(from + left - 8);
  } else if (left >= 8) {
    first = LoadWord<uint64_t>(from);
    second = LoadWord<uint64_t>(from + left - 8);
  } else if (left >= 4) {
    first = LoadWord<uint32_t>(from);
    second = LoadWord<uint32_t>(from + left - 4);
  } else if (left > 0) {
    first = static_cast<unsigned char>(from[0]);
    second = static_cast<uint64_t>(static_cast<unsigned char>(from[left / 2])) << 8 |
             static_cast<unsigned char>(from[left - 1]);
  }
  return FoldedProduct(first ^ seed.last, second ^ state);
}

/// The product of a list so far, with one more text. Those of the texts do not wait for each other,
/// and the lists {"ab", "c"} and {"a", "bc"} differ. For `MixedHash`.
inline uint64_t ListProduct(uint64_t list, std::string_view text) {
  return list * kHashFactor + TextProduct(text);
}

/// The hash of a text or a list, of its product: each bit is as good as any other.
inline uint64_t MixedHash(uint64_t product) { return FoldedProduct(product, kHashFactor); }

/// 64-bit hash of a text.
inline uint64_t HashText(std::string_view text) { return MixedHash(TextProduct(text)); }

}  // namespace METRICS

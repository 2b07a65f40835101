#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "codec/tag_kv.h"

namespace lattice_kit::codec {

/// Offset basis of the 32-bit FNV hash: the seed of a hash from scratch.
constexpr uint32_t kFNVOffsetBasis = 0x811c9dc5U;
constexpr uint32_t kFNVPrime = 0x01000193U;

/// 32-bit FNV-1a hash of the bytes of `s`, continued from `seed`
/// (G. Fowler, L. C. Noll, K.-P. Vo, "The FNV Non-Cryptographic Hash Algorithm").
/// Hashes chain: the hash of a text is that of its tail seeded with that of its head.
inline uint32_t StrFNVHash(std::string_view s, uint32_t seed) {
  uint32_t hash = seed;
  const auto step = [&hash](char c) { hash = (hash ^ static_cast<unsigned char>(c)) * kFNVPrime; };
  const char* from = s.data();
  size_t left = s.size();
  // Eight at a time, which leaves room in the processor for what goes on beside this chain.
  for (; left >= 8; left -= 8, from += 8) {
    step(from[0]);
    step(from[1]);
    step(from[2]);
    step(from[3]);
    step(from[4]);
    step(from[5]);
    step(from[6]);
    step(from[7]);
  }
  for (; left > 0; --left) {
    step(*from++);
  }
  return hash;
}

/// As `StrFNVHash`, then one zero byte, which keeps neighbouring strings apart.
inline uint32_t DelimitedFNVHash(std::string_view s, uint32_t seed) {
  return StrFNVHash(s, seed) * kFNVPrime;
}

/// Adds a tag to the hash of a tag list.
inline uint32_t TagFNVHash(std::string_view key, std::string_view value, uint32_t seed) {
  return DelimitedFNVHash(value, DelimitedFNVHash(key, seed));
}

/// Hash of a list of strings, boundaries included.
uint32_t StrVecFNVHash(const std::vector<std::string>& v);

/// Hash of a tag list: keys and values in list order, boundaries included. It is the tag hash of
/// a series in packets.
uint32_t TagVecFNVHash(const std::vector<TagKV>& v);

}  // namespace lattice_kit::codec

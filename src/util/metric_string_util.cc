#include "util/metric_string_util.h"

#include <tmmintrin.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <set>

namespace METRICS {
namespace {

constexpr size_t kChunk = 16;
constexpr size_t kMaxTableLength = 254;
constexpr size_t kMaxLength = 4095;

bool AllInTable(std::string_view s, const unsigned char* table) {
  return std::all_of(s.begin(), s.end(), [table](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x80 && table[byte] != 0;
  });
}

bool InBitmap(char c, const unsigned char* bitmap) {
  // A byte with its top bit set comes out as a bit position of 24 and above, where no entry has a
  // bit.
  const int position = (static_cast<signed char>(c) >> 4) & 31;
  return ((static_cast<uint32_t>(bitmap[static_cast<unsigned char>(c) & 15]) >> position) & 1) != 0;
}

// Sixteen bytes at a time with byte shuffles, the only code here that needs more than plain
// x86-64.
__attribute__((target("ssse3"))) bool ChunksInBitmap(const char* data, size_t chunks,
                                                     const unsigned char* bitmap) {
  const __m128i classes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bitmap));
  const __m128i bit_of_nibble =
      _mm_setr_epi8(1, 2, 4, 8, 16, 32, 64, -128, 1, 2, 4, 8, 16, 32, 64, -128);
  const __m128i low_nibble = _mm_set1_epi8(0x0f);
  for (size_t i = 0; i < chunks; ++i) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i * kChunk));
    // The shuffle gives 0 for a byte with its top bit set, which rejects all non-ASCII.
    const __m128i allowed = _mm_shuffle_epi8(classes, bytes);
    const __m128i high = _mm_and_si128(_mm_srli_epi16(bytes, 4), low_nibble);
    const __m128i wanted = _mm_shuffle_epi8(bit_of_nibble, high);
    const __m128i match = _mm_cmpeq_epi8(_mm_and_si128(allowed, wanted), wanted);
    if (_mm_movemask_epi8(match) != 0xffff) {
      return false;
    }
  }
  return true;
}

}  // namespace

// clang-format off
const unsigned char g_t_validKey[128] = {
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1,  // % - . /
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0,  // 0-9 :
    0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  // A-O
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 1,  // P-Z _
    0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  // a-o
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0,  // p-z
};

const unsigned char g_t_validVal[128] = {
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    1, 1, 0, 1, 1, 1, 1, 1, 0, 0, 0, 1, 0, 1, 1, 1,  // blank ! # $ % & ' + - . /
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 0, 1,  // 0-9 : ; = ?
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  // @ A-O
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  // P-Z [ backslash ] ^ _
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  // back-quote a-o
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 1, 0,  // p-z ~
};
// clang-format on

const unsigned char g_s_validKey[16] = {0xa8, 0xf8, 0xf8, 0xf8, 0xf8, 0xfc, 0xf8, 0xf8,
                                        0xf8, 0xf8, 0xf8, 0x50, 0x50, 0x54, 0x54, 0x74};

const unsigned char g_s_validVal[16] = {0xfc, 0xfc, 0xf8, 0xfc, 0xfc, 0xfc, 0xfc, 0xfc,
                                        0xf8, 0xf8, 0xf8, 0x7c, 0x70, 0x7c, 0xf4, 0x7c};

bool IsValidStrTable(const std::string& s, const unsigned char* table) {
  return s.size() <= kMaxTableLength && AllInTable(s, table);
}

bool IsValidStrSIMD(std::string_view s, const unsigned char* table, const unsigned char* bitmap) {
  if (s.size() < kChunk) {
    return AllInTable(s, table);
  }
  if (s.size() > kMaxLength) {
    return false;
  }
  const size_t chunks = s.size() / kChunk;
  if (!ChunksInBitmap(s.data(), chunks, bitmap)) {
    return false;
  }
  return std::all_of(s.data() + chunks * kChunk, s.data() + s.size(),
                     [bitmap](char c) { return InBitmap(c, bitmap); });
}

bool IsValidNonEmptyStrSIMD(std::string_view s, const unsigned char* table,
                            const unsigned char* bitmap) {
  return !s.empty() && IsValidStrSIMD(s, table, bitmap);
}

bool CheckDuplicatedString(const std::vector<std::string>& v) {
  std::set<std::string> seen;
  return std::all_of(v.begin(), v.end(),
                     [&seen](const std::string& s) { return seen.insert(s).second; });
}

std::string FormatFixed(double value) {
  constexpr int kDecimals = 6;
  std::string text(15, '\0');  // short numbers need no allocation
  while (true) {
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value,
                                            std::chars_format::fixed, kDecimals);
    if (error == std::errc()) {
      text.resize(static_cast<size_t>(end - text.data()));
      return text;
    }
    text.resize(2 * text.size());
  }
}

unsigned long GetSize(const std::vector<std::string>& v) {
  unsigned long size = 0;
  for (const std::string& s : v) {
    size += s.size();
  }
  return size;
}

}  // namespace METRICS

#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace METRICS {

// Legal characters of keys (names, tag keys, prefixes, tenants) and of tag values, each in two
// forms that accept the same 7-bit characters: a table with 1 at each legal character, and a
// bitmap by nibbles, where entry (c AND 15) has bit (c >> 4) set if c is legal.
extern const unsigned char g_t_validKey[128];
extern const unsigned char g_t_validVal[128];
extern const unsigned char g_s_validKey[16];
extern const unsigned char g_s_validVal[16];

/// Whether all characters of `s` are legal by `table`. True for the empty string, false above 254
/// bytes.
bool IsValidStrTable(const std::string& s, const unsigned char* table);

/// Whether all characters of `s` are legal by `table` and `bitmap`, two forms of one class. True
/// for the empty string, false from 4096 bytes on.
bool IsValidStrSIMD(std::string_view s, const unsigned char* table, const unsigned char* bitmap);

/// As `IsValidStrSIMD`, but false for the empty string.
bool IsValidNonEmptyStrSIMD(std::string_view s, const unsigned char* table,
                            const unsigned char* bitmap);

/// The two classes by name.
inline bool IsValidKey(std::string_view s) {
  return IsValidNonEmptyStrSIMD(s, g_t_validKey, g_s_validKey);
}
inline bool IsValidKeyOrEmpty(std::string_view s) {
  return IsValidStrSIMD(s, g_t_validKey, g_s_validKey);
}
inline bool IsValidValue(std::string_view s) {
  return IsValidNonEmptyStrSIMD(s, g_t_validVal, g_s_validVal);
}

/// True when all strings of `v` are different.
bool CheckDuplicatedString(const std::vector<std::string>& v);

/// Same size, and equal string by string in order.
inline bool operator==(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}

/// `value` with six decimals and a point, in every locale.
std::string FormatFixed(double value);

/// Sum of the lengths of the strings, in bytes.
unsigned long GetSize(const std::vector<std::string>& v);

}  // namespace METRICS

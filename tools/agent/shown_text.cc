#include "agent/shown_text.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cwchar>

#include "agent/utf8.h"

namespace tidegate::agent {
namespace {

struct Character {
  size_t bytes;
  int columns;  // below 1: it is not to be shown
};

Character FirstOf(std::string_view text) {
  std::mbstate_t state = {};
  wchar_t wide = 0;
  const size_t bytes = std::mbrtowc(&wide, text.data(), text.size(), &state);
  if (bytes == 0 || bytes > text.size()) return {1, 0};
  return {bytes, wcwidth(wide)};
}

}  // namespace

std::string Harmless(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const Character next = FirstOf(text);
    for (const char byte : text.substr(0, next.bytes)) {
      if (next.columns > 0) {
        shown += byte;
      } else {
        AppendHexByte(byte, &shown);
      }
    }
    text.remove_prefix(next.bytes);
  }
  return shown;
}

size_t ColumnsOf(std::string_view text) {
  size_t columns = 0;
  while (!text.empty()) {
    const Character next = FirstOf(text);
    columns += static_cast<size_t>(std::max(next.columns, 0));
    text.remove_prefix(next.bytes);
  }
  return columns;
}

std::string_view CutTo(std::string_view text, size_t columns) {
  size_t bytes = 0;
  while (bytes < text.size()) {
    const Character next = FirstOf(text.substr(bytes));
    const auto needed = static_cast<size_t>(std::max(next.columns, 0));
    if (needed > columns) break;
    columns -= needed;
    bytes += next.bytes;
  }
  return text.substr(0, bytes);
}

std::string AgeText(double seconds) {
  constexpr int64_t kMinute = 60;
  constexpr int64_t kHour = 60 * kMinute;
  constexpr int64_t kDay = 24 * kHour;
  const auto whole = static_cast<int64_t>(std::clamp(seconds, 0.0, 1e9));
  const auto two = [](int64_t large, const char* unit, int64_t small, const char* small_unit) {
    return std::to_string(large) + unit + std::to_string(small) + small_unit;
  };
  if (whole >= kDay) return two(whole / kDay, " days ", whole % kDay / kHour, " h");
  if (whole >= kHour) return two(whole / kHour, " h ", whole % kHour / kMinute, " min");
  if (whole >= kMinute) return two(whole / kMinute, " min ", whole % kMinute, " s");
  return std::to_string(whole) + " s";
}

std::string RateText(double rate) {
  char text[32];
  if (!std::isfinite(rate)) return "-";
  std::snprintf(text, sizeof(text), "%.*f", rate < 100 ? 1 : 0, std::min(rate, 1e15));
  return text;
}

}  // namespace tidegate::agent

#include "agent/numbers.h"

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace tidegate::agent {

void AppendNumber(double value, const NumberWords& words, std::string* out) {
  if (!std::isfinite(value)) {
    *out += std::isnan(value) ? words.nan : value > 0 ? words.infinity : words.minus_infinity;
    return;
  }
  constexpr double kExact = 9007199254740992;  // 2^53
  // A zero may have a sign.
  const bool whole = std::fabs(value) <= kExact && value != 0 && std::trunc(value) == value;
  char digits[32];
  const char* const end =
      whole ? std::to_chars(std::begin(digits), std::end(digits), static_cast<int64_t>(value)).ptr
            : std::to_chars(std::begin(digits), std::end(digits), value).ptr;
  out->append(digits, static_cast<size_t>(end - digits));
}

}  // namespace tidegate::agent

// The string validators. Each class of characters has three forms: the table, the bitmap by single
// bytes and the bitmap by chunks. They must agree on every text, length and address.
//
// An input is one byte for the address, two for the number of legal bytes before the text, and the
// text. So short inputs reach every length, also those past the limits.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>

#include "fuzz/target.h"
#include "util/metric_string_util.h"

namespace {
// How far after the address that malloc returns an object begins. Nobody can choose the address of
// a string's text, so operator new shifts it.
size_t shift = 0;
constexpr uintptr_t kMallocAlignment = 16;
}  // namespace

// Inlined, gcc would see malloc'ed memory meet a delete and warn.
[[gnu::noinline]] void* operator new(size_t size) {
  if (void* memory = std::malloc(size + shift)) return static_cast<char*>(memory) + shift;
  std::abort();
}
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return operator new(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(static_cast<char*>(memory) - reinterpret_cast<uintptr_t>(memory) % kMallocAlignment);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { operator delete(memory); }

namespace tidegate::fuzz {
namespace {

constexpr size_t kHead = 3;
constexpr size_t kMaxAhead = 4200;
constexpr size_t kTableLimit = 254;
constexpr size_t kLimit = 4095;

bool IsLegal(const unsigned char* table, const uint8_t* begin, const uint8_t* end) {
  return std::all_of(begin, end, [table](uint8_t c) { return c < 128 && table[c] == 1; });
}

bool CheckClass(const std::string& text, bool legal, const unsigned char* table,
                const unsigned char* bitmap) {
  const bool valid = legal && text.size() <= kLimit;
  Require(METRICS::IsValidStrSIMD(text, table, bitmap) == valid, "chunks agree with the table");
  Require(METRICS::IsValidNonEmptyStrSIMD(text, table, bitmap) == (valid && !text.empty()),
          "an empty text makes the one difference");
  Require(METRICS::IsValidStrTable(text, table) == (legal && text.size() <= kTableLimit),
          "the table has its own limit");
  return valid;
}

bool ValidateInput(const uint8_t* data, size_t size) {
  if (size < kHead) return false;
  const size_t ahead = (data[1] + 256U * data[2]) % kMaxAhead;
  shift = data[0] % kMallocAlignment;
  // Of exactly its size, so that the address sanitizer sees every read after the end.
  std::string text(ahead + (size - kHead), 'a');
  shift = 0;
  std::copy(data + kHead, data + size, text.begin() + static_cast<std::ptrdiff_t>(ahead));
  const bool key = CheckClass(text, IsLegal(METRICS::g_t_validKey, data + kHead, data + size),
                              METRICS::g_t_validKey, METRICS::g_s_validKey);
  const bool value = CheckClass(text, IsLegal(METRICS::g_t_validVal, data + kHead, data + size),
                                METRICS::g_t_validVal, METRICS::g_s_validVal);
  return key || value;
}

const Registration kRegistration("string_validators", ValidateInput);

}  // namespace
}  // namespace tidegate::fuzz

#pragma once

#include <cassert>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace lattice_kit::codec {

/// Initial capacity of a packet's buffer in bytes, and the length at which a packet is sent.
constexpr int32_t kPacketBytes = 262143;

/// A buffer that grew beyond this is cut back to `kPacketBytes` when it is emptied.
constexpr int32_t kMostKeptBytes = 409600;

/// Growable byte buffer that packets are built in, front to back.
///
/// Integers and doubles are stored as they stand in memory, which is little-endian on every
/// platform of the library. Not thread-safe. Owns its memory; not copyable. Lengths are signed
/// 32-bit numbers, and whoever may exceed them asks `TryReserve` first. Without memory it throws
/// `std::bad_alloc` and is as it was.
class Pack {
 public:
  /// Allocates `initial_capacity` bytes.
  explicit Pack(int32_t initial_capacity);
  ~Pack();
  Pack(const Pack&) = delete;
  Pack& operator=(const Pack&) = delete;

  int32_t Used() const { return static_cast<int32_t>(cursor - begin); }

  /// Makes room for `n` more bytes and one to spare: a write that would fill the buffer exactly
  /// also grows it, by multiples of 1024.
  void Reserve(int32_t n) {
    if (capacity - Used() <= n) {
      Grow(n);
    }
  }
  /// The same, or false, and nothing changed, when the buffer would get longer than its lengths can
  /// tell.
  bool TryReserve(size_t n) {
    if (static_cast<size_t>(capacity - Used()) > n) {
      return true;
    }
    constexpr size_t kMaxUsed = INT32_MAX - 4096;  // with what `Grow` adds
    if (n > kMaxUsed || static_cast<size_t>(Used()) > kMaxUsed - n) {
      return false;
    }
    Grow(static_cast<int32_t>(n));
    return true;
  }

  /// Appends a number of fixed width.
  template <class T>
  void Put(T value) {
    static_assert(std::is_arithmetic_v<T>);
    Reserve(static_cast<int32_t>(sizeof(T)));
    std::memcpy(cursor, &value, sizeof(T));
    cursor += sizeof(T);
  }

  /// Appends `n` raw bytes.
  void PutRaw(const void* data, int32_t n);

  /// Overwrites the number at `offset`. REQUIRES: it was written before.
  template <class T>
  void Patch(uint32_t offset, T value) {
    static_assert(std::is_arithmetic_v<T>);
    assert(offset + sizeof(T) <= static_cast<size_t>(Used()));
    std::memcpy(begin + offset, &value, sizeof(T));
  }

  /// Empties the buffer, and cuts one that grew beyond `kMostKeptBytes` back to `kPacketBytes`.
  void Clear();

  /// The bytes written so far.
  std::string Bytes() const { return std::string(begin, cursor); }

  char* begin;       ///< start of the allocation
  char* cursor;      ///< next byte to write
  int32_t capacity;  ///< bytes allocated

 private:
  void Grow(int32_t n);
  void Reallocate(int32_t new_capacity);
};

// Write at `to`, where there is room, and move it on.

template <class T>
inline void Append(char*& to, T number) {
  static_assert(std::is_arithmetic_v<T>);
  std::memcpy(to, &number, sizeof(number));
  to += sizeof(number);
}

/// The bytes of a text. Short ones by two words that may overlap, without a call.
inline void AppendBytes(char*& to, std::string_view bytes) {
  const char* const from = bytes.data();
  const size_t size = bytes.size();
  const auto by_two = [&](auto word) {
    auto last = word;
    std::memcpy(&word, from, sizeof(word));
    std::memcpy(&last, from + size - sizeof(last), sizeof(last));
    std::memcpy(to, &word, sizeof(word));
    std::memcpy(to + size - sizeof(last), &last, sizeof(last));
  };
  struct TwoWords {
    uint64_t words[2];
  };
  if (size > 2 * sizeof(TwoWords)) {
    std::memcpy(to, from, size);
  } else if (size >= sizeof(TwoWords)) {
    by_two(TwoWords{});
  } else if (size >= 8) {
    by_two(uint64_t{});
  } else if (size >= 4) {
    by_two(uint32_t{});
  } else if (size >= 2) {
    by_two(uint16_t{});
  } else if (size == 1) {
    *to = *from;
  }
  to += size;
}

}  // namespace lattice_kit::codec

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "agent/read_error.h"

namespace tidegate::agent {

// Reads primitives front to back. A failed read records where and why; nothing may be read after
// it.
class PacketCursor {
 public:
  PacketCursor(const unsigned char* data, size_t size, ReadError* error)
      : data_(data), end_(size), error_(error) {}

  size_t offset() const { return offset_; }
  size_t remaining() const { return end_ - offset_; }

  // Moves the end to `end`, which lies between the offset and the size of the data.
  void SetEnd(size_t end) { end_ = end; }

  bool Fail(size_t offset, std::string reason) {
    error_->offset = offset;
    error_->reason = std::move(reason);
    return false;
  }

  bool ReadU8(const char* what, uint8_t* value) {
    const unsigned char* bytes = Take(1, what);
    if (bytes == nullptr) return false;
    *value = bytes[0];
    return true;
  }

  bool ReadU32(const char* what, uint32_t* value) {
    const unsigned char* bytes = Take(4, what);
    if (bytes == nullptr) return false;
    *value = static_cast<uint32_t>(LittleEndian(bytes, 4));
    return true;
  }

  bool ReadI64(const char* what, int64_t* value) {
    const unsigned char* bytes = Take(8, what);
    if (bytes == nullptr) return false;
    *value = static_cast<int64_t>(LittleEndian(bytes, 8));
    return true;
  }

  bool ReadF64(const char* what, double* value) {
    const unsigned char* bytes = Take(8, what);
    if (bytes == nullptr) return false;
    const uint64_t bits = LittleEndian(bytes, 8);
    std::memcpy(value, &bits, sizeof(bits));
    return true;
  }

  bool ReadString(const char* what, std::string* value) {
    const size_t start = offset_;
    uint32_t length = 0;
    if (!ReadU32(what, &length)) return false;
    if (length > remaining()) {
      return Fail(start, std::string(what) + " has the length " + std::to_string(length) +
                             ", but " + std::to_string(remaining()) + " bytes are left");
    }
    value->assign(reinterpret_cast<const char*>(data_ + offset_), length);
    offset_ += length;
    return true;
  }

  // A count of elements that take at least `min_bytes` each.
  bool ReadCount(const char* what, size_t min_bytes, uint32_t* count) {
    const size_t start = offset_;
    if (!ReadU32(what, count)) return false;
    if (*count > remaining() / min_bytes) {
      return Fail(start, std::string(what) + " is " + std::to_string(*count) + ", but " +
                             std::to_string(remaining()) + " bytes are left");
    }
    return true;
  }

  // Bytes that must be exactly `expected`.
  bool Expect(const char* what, const char* expected, size_t size) {
    const size_t start = offset_;
    const unsigned char* bytes = Take(size, what);
    if (bytes == nullptr) return false;
    if (std::memcmp(bytes, expected, size) == 0) return true;
    return Fail(start, std::string("wrong ") + what);
  }

  bool ExpectU8(const char* what, uint8_t expected) {
    const size_t start = offset_;
    uint8_t value = 0;
    return ReadU8(what, &value) && CheckEqual(start, what, value, expected);
  }

  bool ExpectU32(const char* what, uint32_t expected) {
    const size_t start = offset_;
    uint32_t value = 0;
    return ReadU32(what, &value) && CheckEqual(start, what, value, expected);
  }

  bool CheckEqual(size_t offset, const char* what, uint64_t value, uint64_t expected) {
    if (value == expected) return true;
    return Fail(offset, std::string(what) + " is " + std::to_string(value) + " instead of " +
                            std::to_string(expected));
  }

 private:
  static uint64_t LittleEndian(const unsigned char* bytes, int width) {
    uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) value = value << 8 | bytes[i];
    return value;
  }

  const unsigned char* Take(size_t size, const char* what) {
    if (size > remaining()) {
      Fail(offset_, std::string("cut off in ") + what);
      return nullptr;
    }
    const unsigned char* bytes = data_ + offset_;
    offset_ += size;
    return bytes;
  }

  const unsigned char* data_;
  size_t offset_ = 0;
  size_t end_;
  ReadError* error_;
};

}  // namespace tidegate::agent

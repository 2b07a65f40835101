#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "util/short_text.h"

namespace METRICS {

/// The tag values of a series in one block of bytes: how many there are, where each ends, and
/// their bytes one after the other. An item carries its own in its allocation, after itself:
///
///     const PackedValues& values = item.values();
///     values.size(), values[0], values.Equals(tag_values), values.ToVector()
///
/// Constant once made, so any thread may read it. Views point into the block: they are good for as
/// long as its item lives. Nothing here allocates, but for `ToVector`.
class PackedValues {
 public:
  PackedValues(const PackedValues&) = delete;
  PackedValues& operator=(const PackedValues&) = delete;

  // `Values` is any list of texts with `size()` and `operator[]`: a vector of strings, of views, a
  // `TagValueRefs`. The bytes of all of them together are less than 4 GiB.

  /// The size of the block for `values`.
  template <class Values>
  static size_t Bytes(const Values& values) {
    size_t bytes = sizeof(PackedValues) + values.size() * sizeof(uint32_t);
    for (size_t i = 0; i < values.size(); ++i) {
      bytes += values[i].size();
    }
    return bytes;
  }
  /// Makes the block in `memory`: `Bytes(values)` bytes that `uint32_t` may begin at. They need no
  /// destruction.
  template <class Values>
  static const PackedValues& Make(void* memory, const Values& values) {
    assert(reinterpret_cast<uintptr_t>(memory) % alignof(PackedValues) == 0);
    assert(Bytes(values) <= std::numeric_limits<uint32_t>::max());
    auto* const packed = new (memory) PackedValues(static_cast<uint32_t>(values.size()));
    auto* const ends = reinterpret_cast<uint32_t*>(packed + 1);
    auto* const texts = reinterpret_cast<char*>(ends + values.size());
    uint32_t end = 0;
    for (size_t i = 0; i < values.size(); ++i) {
      const std::string_view value = values[i];
      if (!value.empty()) {
        std::memcpy(texts + end, value.data(), value.size());
      }
      end += static_cast<uint32_t>(value.size());
      ends[i] = end;
    }
    return *packed;
  }

  size_t size() const { return count_; }
  std::string_view operator[](size_t index) const {
    assert(index < count_);
    const uint32_t begin = index == 0 ? 0 : Ends()[index - 1];
    return {Texts() + begin, Ends()[index] - begin};
  }
  /// Whether these are as many, and equal text by text.
  template <class Values>
  bool Equals(const Values& values) const {
    if (values.size() != count_) {
      return false;
    }
    const char* text = Texts();
    uint32_t begin = 0;
    for (size_t i = 0; i < count_; ++i) {
      const uint32_t end = Ends()[i];
      if (!SameText({text, end - begin}, values[i])) {
        return false;
      }
      text += end - begin;
      begin = end;
    }
    return true;
  }
  std::vector<std::string> ToVector() const {
    std::vector<std::string> values;
    values.reserve(count_);
    for (size_t i = 0; i < count_; ++i) {
      values.emplace_back((*this)[i]);
    }
    return values;
  }
  /// Bytes of all texts together.
  size_t TextBytes() const { return count_ == 0 ? 0 : Ends()[count_ - 1]; }

 private:
  explicit PackedValues(uint32_t count) : count_(count) {}

  const uint32_t* Ends() const { return reinterpret_cast<const uint32_t*>(this + 1); }
  const char* Texts() const { return reinterpret_cast<const char*>(Ends() + count_); }

  const uint32_t count_;
};

}  // namespace METRICS

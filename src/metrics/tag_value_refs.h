#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "codec/fnv_hash.h"
#include "util/short_text.h"
#include "util/word_hash.h"

namespace METRICS {

/// The hash of a list of tag values, which may be any that gives its texts by index.
template <class Values>
uint64_t HashTagValues(const Values& values) {
  uint64_t product = 0;
  for (size_t i = 0; i < values.size(); ++i) {
    product = ListProduct(product, values[i]);
  }
  return MixedHash(product);
}

/// A vector of tag values that is not made: the strings stand where the caller has them.
class TagValueRefs {
 public:
  /// The most tags that a metric may declare.
  static constexpr size_t kMax = 255;

  /// `count` values, none of which is set. REQUIRES: `count` is at most `kMax`; all are set before
  /// any is read.
  explicit TagValueRefs(size_t count) : count_(count) { assert(count <= kMax); }
  /// REQUIRES: before `Hash`.
  void Set(size_t index, std::string_view value) {
    assert(index < count_ && !hashed_);
    values_[index] = {value.data(), value.size()};
  }
  /// Sets the values from `index` on to `value`.
  void SetFrom(size_t index, std::string_view value) {
    for (; index < count_; ++index) {
      Set(index, value);
    }
  }
  size_t size() const { return count_; }
  std::string_view operator[](size_t index) const {
    assert(index < count_);
    return {values_[index].data, values_[index].size};
  }

  /// `HashTagValues` of them, computed once.
  uint64_t Hash() const {
    if (!hashed_) {
      hash_ = HashTagValues(*this);
      hashed_ = true;
    }
    return hash_;
  }

 private:
  const size_t count_;
  mutable bool hashed_ = false;
  mutable uint64_t hash_ = 0;
  // Not of views, whose constructor would write all of them.
  struct Text {
    const char* data;
    size_t size;
  } values_[kMax];
};

/// `HashTagValues` as the table of series wants it.
struct TagValuesHash {
  template <class Values>
  uint64_t operator()(const Values& values) const {
    return HashTagValues(values);
  }
  uint64_t operator()(const TagValueRefs& values) const { return values.Hash(); }
};

/// Hash of a vector of tag values: the strings chained without delimiters.
struct TagKVHash {
  size_t operator()(const std::vector<std::string>& tag_values) const {
    uint32_t hash = lattice_kit::codec::kFNVOffsetBasis;
    for (const std::string& value : tag_values) {
      hash = lattice_kit::codec::StrFNVHash(value, hash);
    }
    return hash;
  }
};

/// Equality of two vectors of tag values, string by string.
struct TagKVCmp {
  bool operator()(const std::vector<std::string>& a, const std::vector<std::string>& b) const {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), SameText);
  }
};

}  // namespace METRICS

#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "codec/fnv_hash.h"
#include "util/short_text.h"

namespace METRICS {

/// A vector of tag values that is not made: the strings stand where the caller has them.
class TagValueRefs {
 public:
  /// The most tags that a metric may declare.
  static constexpr size_t kMax = 255;

  /// `count` values, all of them `value`. REQUIRES: `count` is at most `kMax`.
  TagValueRefs(size_t count, const std::string& value) : count_(count) {
    assert(count <= kMax);
    std::fill_n(values_, count, &value);
  }
  void Set(size_t index, const std::string& value) {
    assert(index < count_);
    values_[index] = &value;
    if (index < hashed_) {
      SetHash(0, lattice_kit::codec::kFNVOffsetBasis);
    }
  }
  /// Tells what the first `count` values hash to.
  void SetHash(size_t count, uint32_t hash) {
    hashed_ = count;
    hash_ = hash;
  }
  size_t size() const { return count_; }
  const std::string& operator[](size_t index) const { return *values_[index]; }
  const std::string* const* begin() const { return values_; }
  const std::string* const* end() const { return values_ + count_; }

  /// `TagKVHash` of the values, computed once.
  uint32_t Hash() const {
    for (; hashed_ < count_; ++hashed_) {
      hash_ = lattice_kit::codec::StrFNVHash(*values_[hashed_], hash_);
    }
    return hash_;
  }

 private:
  const size_t count_;
  mutable size_t hashed_ = 0;
  mutable uint32_t hash_ = lattice_kit::codec::kFNVOffsetBasis;  ///< of the first `hashed_` values
  const std::string* values_[kMax];                              // filled as far as `count_`
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
  size_t operator()(const TagValueRefs& tag_values) const { return tag_values.Hash(); }
};

/// Equality of two vectors of tag values, string by string.
struct TagKVCmp {
  bool operator()(const std::vector<std::string>& a, const std::vector<std::string>& b) const {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), SameText);
  }
  bool operator()(const std::vector<std::string>& a, const TagValueRefs& b) const {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](const std::string& x, const std::string* y) { return SameText(x, *y); });
  }
};

}  // namespace METRICS

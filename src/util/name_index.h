#pragma once

#include <cstddef>
#include <functional>
#include <string_view>
#include <unordered_map>

namespace METRICS {

/// Finds the entries of a list by their names: compares while there are few, and keeps an index
/// once there are more than `kCompared`. The entries stand elsewhere and are known by their numbers
/// in it; the list only grows.
///
/// Not thread-safe: its owner guards it. A search allocates nothing.
class NameIndex {
 public:
  static constexpr size_t kCompared = 12;

  /// The number of an entry of `count` for which `matches` holds, which one named otherwise than
  /// `name` must not, or `count`.
  template <class Matches>
  size_t Find(std::string_view name, size_t count, Matches matches) const {
    if (count <= kCompared) {
      size_t i = 0;
      while (i < count && !matches(i)) {
        ++i;
      }
      return i;
    }
    const auto [first, last] = numbers_.equal_range(std::hash<std::string_view>()(name));
    for (auto known = first; known != last; ++known) {
      if (matches(known->second)) {
        return known->second;
      }
    }
    return count;
  }

  /// Takes in what has been added to the list, which has `count` entries now. Where it throws, it
  /// can be called again.
  template <class NameOf>
  void Extend(size_t count, NameOf name_of) {
    if (count > kCompared) {
      for (size_t i = numbers_.size(); i < count; ++i) {
        numbers_.emplace(std::hash<std::string_view>()(name_of(i)), i);
      }
    }
  }

  void Clear() {
    if (!numbers_.empty()) {  // an index that was large is not cheap to clear
      numbers_.clear();
    }
  }

 private:
  std::unordered_multimap<size_t, size_t> numbers_;  ///< by hashes; empty up to `kCompared`
};

}  // namespace METRICS

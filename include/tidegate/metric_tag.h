#pragma once

#include <string>
#include <utility>

namespace tidegate {

/// One tag: a key and its value.
///
/// A plain value type without locks. Tags order by `key` alone (bytes compared, the shorter key
/// first on a common start), so two tags with one key and different values are equivalent.
struct MetricTag {
  MetricTag() = default;
  /// Takes both over; nothing is checked here.
  MetricTag(std::string tag_key, std::string tag_value)
      : key(std::move(tag_key)), value(std::move(tag_value)) {}

  std::string key;    ///< the name of the tag
  std::string value;  ///< what it is for one series
};

/// By `key` alone.
inline bool operator<(const MetricTag& a, const MetricTag& b) { return a.key < b.key; }

}  // namespace tidegate

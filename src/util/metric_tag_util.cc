#include "util/metric_tag_util.h"

#include <algorithm>
#include <set>
#include <unordered_map>

#include "util/metric_string_util.h"

namespace METRICS {

bool IsValidTag(const tidegate::MetricTag& tag) {
  return IsValidKey(tag.key) && IsValidValue(tag.value);
}

std::vector<std::string> KeysOf(const std::vector<tidegate::MetricTag>& tags) {
  std::vector<std::string> keys;
  keys.reserve(tags.size());
  for (const tidegate::MetricTag& tag : tags) {
    keys.push_back(tag.key);
  }
  return keys;
}

bool CheckWithInsertedTags(const std::string& key, const std::vector<tidegate::MetricTag>& tags) {
  return std::none_of(tags.begin(), tags.end(),
                      [&key](const tidegate::MetricTag& tag) { return tag.key == key; });
}

bool IsTagKeySame(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  if (a.size() != b.size()) {
    return false;
  }
  std::set<std::string> left(a.begin(), a.end());
  for (const std::string& key : b) {
    left.erase(key);
  }
  return left.empty();
}

bool IsTagSame(const std::vector<tidegate::MetricTag>& a,
               const std::vector<tidegate::MetricTag>& b) {
  if (a.size() != b.size()) {
    return false;
  }
  std::unordered_map<std::string, std::string> values;
  for (const tidegate::MetricTag& tag : a) {
    values[tag.key] = tag.value;
  }
  return std::all_of(b.begin(), b.end(), [&values](const tidegate::MetricTag& tag) {
    return values[tag.key] == tag.value;
  });
}

bool MTagKeyEq(const tidegate::MetricTag& a, const tidegate::MetricTag& b) {
  return a.key == b.value;
}

}  // namespace METRICS

#include "agent/nearest_name.h"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <utility>

namespace tidegate::agent {
namespace {

size_t Distance(std::string_view one, std::string_view other) {
  std::vector<size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < one.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i + 1);
    for (size_t j = 0; j < other.size(); ++j) {
      const size_t exchanged = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({exchanged, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string NearestName(std::string_view text, const std::vector<std::string>& names) {
  std::string nearest;
  size_t least = SIZE_MAX;
  for (const std::string& name : names) {
    const size_t distance = Distance(text, name);
    if (distance >= least) continue;
    least = distance;
    nearest = name;
  }
  return nearest;
}

std::string NoSuchSetting(const std::string& key, const std::vector<std::string>& names) {
  return "there is no setting \"" + key + "\", the nearest is \"" + NearestName(key, names) + '"';
}

}  // namespace tidegate::agent

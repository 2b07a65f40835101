#include "util/distinct_count.h"

#include <algorithm>

namespace METRICS {

void DistinctCount::Keep(uint64_t hash) {
  const auto at = std::lower_bound(smallest_.begin(), smallest_.end(), hash);
  if (at != smallest_.end() && *at == hash) {
    return;
  }
  smallest_.insert(at, hash);
  if (smallest_.size() > kKept) {
    smallest_.pop_back();
  }
}

uint64_t DistinctCount::Count() const {
  if (IsExact()) {
    return smallest_.size();
  }
  constexpr double kAllHashes = 18446744073709551616.0;  // 2^64
  const double share = (static_cast<double>(smallest_.back()) + 1) / kAllHashes;
  return static_cast<uint64_t>(static_cast<double>(kKept - 1) / share);
}

}  // namespace METRICS

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace METRICS {

/// How many different hashes a list has: exact below `kKept`, within some 3 % beyond. Keeps the
/// smallest ones, whose largest tells how densely they lie (Z. Bar-Yossef, T. S. Jayram, R. Kumar,
/// D. Sivakumar, L. Trevisan, "Counting Distinct Elements in a Data Stream", RANDOM 2002; without
/// bias by K. Beyer et al., "On Synopses for Distinct-Value Estimation Under Multiset Operations",
/// SIGMOD 2007). Takes 8 KB at most.
///
/// Not thread-safe. The hashes must spread over all 64 bits.
class DistinctCount {
 public:
  static constexpr size_t kKept = 1024;

  void Add(uint64_t hash) {
    if (smallest_.size() < kKept || hash < smallest_.back()) {
      Keep(hash);
    }
  }
  /// Whether `Count` is exact.
  bool IsExact() const { return smallest_.size() < kKept; }
  uint64_t Count() const;

 private:
  void Keep(uint64_t hash);

  std::vector<uint64_t> smallest_;  ///< sorted
};

}  // namespace METRICS

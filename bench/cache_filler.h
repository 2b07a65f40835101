#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <vector>

namespace tidegate::bench {

// Reads more than the caches hold, so that whatever was in them comes from memory again.
class CacheFiller {
 public:
  void Fill() {
    long sum = 0;
    for (size_t i = 0; i < lines_.size(); i += kNumbersOfALine) {
      sum += lines_[i];
    }
    benchmark::DoNotOptimize(sum);
  }

 private:
  static constexpr size_t kBytes = size_t{96} << 20;
  static constexpr size_t kNumbersOfALine = 64 / sizeof(long);

  const std::vector<long> lines_ = std::vector<long>(kBytes / sizeof(long), 1);
};

}  // namespace tidegate::bench

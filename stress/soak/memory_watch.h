#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "support/report.h"

namespace tidegate::stress {

// Watches the resident memory of this process, a sample a second. What it holds half a minute after
// the first minute is compared with what it holds in the last half minute: medians, so that a flush
// which stands in the way does not count. For one thread.
class MemoryWatch {
 public:
  void Sample();
  // Adds the figures; growth beyond the tolerance is a violation, in builds without a sanitizer and
  // in runs of two minutes or more. The tolerance is a tenth, and 4 MB for the allocator's arenas.
  void Judge(Report& report) const;

 private:
  std::vector<int64_t> samples_;  // kilobytes
};

}  // namespace tidegate::stress

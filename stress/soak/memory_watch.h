#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "support/report.h"

namespace tidegate::stress {

// Watches the resident memory of this process, a sample a second. It compares the half minute after
// the first minute with the last half minute, by their medians, so that a single flush does not
// count. For one thread.
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

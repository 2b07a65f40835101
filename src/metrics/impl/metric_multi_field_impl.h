#pragma once

#include <string>
#include <vector>

#include "codec/tag_kv.h"

namespace METRICS {

/// Names the columns of rows of numbers.
class MultiFieldMetricImpl {
 public:
  /// Appends the columns of a delta counter: the names of its numbers behind `name` and a dot, or
  /// alone if `name` is empty.
  static void GenerateDeltaCounterField(std::vector<lattice_kit::codec::FieldInfo>& out,
                                        const std::string& name);
};

}  // namespace METRICS

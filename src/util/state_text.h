#pragma once

#include "util/metric_common.h"

namespace METRICS {

/// Text of `state`, as `DebugString` shows it. Static storage.
const char* StateText(MetricState state);

}  // namespace METRICS

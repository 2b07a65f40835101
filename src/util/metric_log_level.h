#pragma once

#include <atomic>
#include <cstdint>

#include "util/metric_export.h"

namespace METRICS {

/// Gate of the library's log lines: 0 prints everything, 1 (the default) hides
/// debug, 2 hides info too, 3 leaves only errors, 4 and above is silent.
///
/// The application may store to it at any time from any thread, by `tidegate::SetLogLevel` too.
extern METRICS_API std::atomic<uint8_t> g_metricsLogLevel;

}  // namespace METRICS

#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "util/metric_error_code.h"
#include "util/metric_log_level.h"
#include "util/wait.h"

namespace METRICS {

inline uint8_t LogLevel() { return g_metricsLogLevel.load(std::memory_order_relaxed); }

/// Debug trace of the creation of a series: `format`, cut to 1023 bytes, and the tag values, each
/// followed by a "|". Prints at level 0 only.
void DebugMsg(const std::vector<std::string>& tag_values, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace METRICS

#ifndef __FILE_NAME__
#error "The log prefix needs __FILE_NAME__: use GCC 12, Clang 9 or newer."
#endif

#define METRICS_LOG_TEXT_OF(x) #x
#define METRICS_LOG_TEXT(x) METRICS_LOG_TEXT_OF(x)

// The prefix becomes part of the format at compile time, and the level is checked before any
// argument is computed. Printing is a cancellation point, and lines come from below functions that
// may not throw.
#define METRICS_LOG(enabled, severity, ...)                        \
  do {                                                             \
    if (enabled) {                                                 \
      const ::METRICS::NoCancellation no_cancellation;             \
      std::printf("[MetricSDK][" severity "][" __FILE_NAME__       \
                  ":" METRICS_LOG_TEXT(__LINE__) "]" __VA_ARGS__); \
    }                                                              \
  } while (false)

#define METRICS_LOG_DEBUG(...) METRICS_LOG(::METRICS::LogLevel() == 0, "DEBUG", __VA_ARGS__)
#define METRICS_LOG_INFO(...) METRICS_LOG(::METRICS::LogLevel() < 2, "Info ", __VA_ARGS__)
#define METRICS_LOG_WARN(...) METRICS_LOG(::METRICS::LogLevel() < 3, "Warn ", __VA_ARGS__)
#define METRICS_LOG_ERROR(...) METRICS_LOG(::METRICS::LogLevel() < 4, "Error", __VA_ARGS__)

/// The report of a refused call: an error line with the text of `code`.
#define METRICS_LOG_CODE(code) METRICS_LOG_ERROR("%s\n", ::METRICS::MetricGetErrorCodeStr(code))

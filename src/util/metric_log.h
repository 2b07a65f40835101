#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tidegate/log.h"
#include "util/metric_error_code.h"
#include "util/metric_log_level.h"

namespace METRICS {

inline uint8_t LogLevel() { return g_metricsLogLevel.load(std::memory_order_relaxed); }

/// Writes a line, whose text begins with a prefix of `prefix_bytes`, to where lines go: see
/// `tidegate/log.h`. Never throws, and is no cancellation point. REQUIRES: this thread holds no
/// lock of the library, or is in a `LogScope`.
[[gnu::cold]] void LogLine(tidegate::LogLevel level, size_t prefix_bytes, const char* format,
                           ...) noexcept __attribute__((format(printf, 3, 4)));

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
#define METRICS_LOG_PREFIX(severity) \
  "[MetricSDK][" severity "][" __FILE_NAME__ ":" METRICS_LOG_TEXT(__LINE__) "]"

// The prefix becomes part of the format at compile time, and the level is checked before any
// argument is computed.
#define METRICS_LOG(enabled, level, severity, ...)                                              \
  do {                                                                                          \
    if (enabled) {                                                                              \
      ::METRICS::LogLine(::tidegate::LogLevel::level, sizeof(METRICS_LOG_PREFIX(severity)) - 1, \
                         METRICS_LOG_PREFIX(severity) __VA_ARGS__);                             \
    }                                                                                           \
  } while (false)

#define METRICS_LOG_DEBUG(...) METRICS_LOG(::METRICS::LogLevel() == 0, kDebug, "DEBUG", __VA_ARGS__)
#define METRICS_LOG_INFO(...) METRICS_LOG(::METRICS::LogLevel() < 2, kInfo, "Info ", __VA_ARGS__)
#define METRICS_LOG_WARN(...) METRICS_LOG(::METRICS::LogLevel() < 3, kWarn, "Warn ", __VA_ARGS__)
#define METRICS_LOG_ERROR(...) METRICS_LOG(::METRICS::LogLevel() < 4, kError, "Error", __VA_ARGS__)

/// The report of a refused call: an error line with the text of `code`.
#define METRICS_LOG_CODE(code) METRICS_LOG_ERROR("%s\n", ::METRICS::MetricGetErrorCodeStr(code))

#include "util/metric_log.h"

#include <cstdarg>
#include <cstdio>
#include <iostream>

#include "util/log_scope.h"
#include "util/log_sink.h"
#include "util/wait.h"

namespace METRICS {

std::atomic<uint8_t> g_metricsLogLevel{1};

void LogLine(tidegate::LogLevel level, size_t prefix_bytes, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  WriteLine(level, prefix_bytes, format, args);
  va_end(args);
}

void DebugMsg(const std::vector<std::string>& tag_values, const char* format, ...) {
  if (LogLevel() != 0) {
    return;
  }
  constexpr size_t kMaxText = 1024;
  std::vector<char> text(kMaxText);
  va_list args;
  va_start(args, format);
  std::vsnprintf(text.data(), text.size(), format, args);
  va_end(args);
  std::string joined;
  for (const std::string& value : tag_values) {
    joined += value;
    joined += '|';
  }
  constexpr char kPrefix[] = "[MetricSDK][Debug]";
  if (HasLogSink()) {
    LogLine(tidegate::LogLevel::kDebug, sizeof(kPrefix) - 1, "%s%s with tag value: %s\n", kPrefix,
            text.data(), joined.c_str());
    return;
  }
  const NoCancellation no_cancellation;
  std::cout << kPrefix << text.data() << " with tag value: " << joined << std::endl;
}

}  // namespace METRICS

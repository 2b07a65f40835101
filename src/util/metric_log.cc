#include "util/metric_log.h"

#include <cstdarg>
#include <iostream>

namespace METRICS {

std::atomic<uint8_t> g_metricsLogLevel{1};

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
  const NoCancellation no_cancellation;
  std::cout << "[MetricSDK][Debug]" << text.data() << " with tag value: " << joined << std::endl;
}

}  // namespace METRICS

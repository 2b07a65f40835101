#include "metrics/error_log.h"

#include <algorithm>

#include "util/metric_log.h"

namespace METRICS {

void ErrorLog::Tell(std::string_view text) {
  const Clock::rep now = Clock::now().time_since_epoch().count();
  Clock::rep next = next_.load(std::memory_order_relaxed);
  if (now < next || !next_.compare_exchange_strong(next, now + period_.count())) {
    left_out_.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  const uint64_t left_out = left_out_.exchange(0, std::memory_order_relaxed);
  constexpr size_t kMaxText = 512;
  char line[kMaxText];
  const std::string_view cut = text.substr(0, kMaxText);
  std::replace_copy_if(
      cut.begin(), cut.end(), line, [](char byte) { return byte >= 0 && byte < ' '; }, ' ');
  const int size = static_cast<int>(cut.size());
  if (left_out == 0) {
    METRICS_LOG_ERROR("%s: %.*s\n", name_.c_str(), size, line);
  } else {
    METRICS_LOG_ERROR("%s: %.*s (%llu more since the last line)\n", name_.c_str(), size, line,
                      static_cast<unsigned long long>(left_out));
  }
}

}  // namespace METRICS

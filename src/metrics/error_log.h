#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "util/metric_export.h"

namespace METRICS {

/// Error lines of one source, one for each period at most. Threads: any.
class ErrorLog {
 public:
  /// `name` is in each line.
  ErrorLog(std::string name, std::chrono::steady_clock::duration period)
      : name_(std::move(name)), period_(period) {}

  /// Writes `text`, or counts it as left out.
  METRICS_API void Tell(std::string_view text);

 private:
  using Clock = std::chrono::steady_clock;

  const std::string name_;
  const Clock::duration period_;
  std::atomic<Clock::rep> next_{std::numeric_limits<Clock::rep>::min()};  ///< when to write again
  std::atomic<uint64_t> left_out_{0};
};

}  // namespace METRICS

#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "util/metric_lock.h"

namespace tidegate::stress {

// The findings of a stress program: violations, each with a line on standard error at once (the
// first 20 of them), and figures, which make the one line at the end. All operations from any
// thread.
class Report {
 public:
  explicit Report(std::string program) : program_(std::move(program)) {}
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;

  // Something that must not happen did.
  void Violation(const std::string& what);
  // A violation unless `holds`, which is also the answer.
  bool Check(bool holds, const std::string& what);
  uint64_t violations() const { return violations_.load(); }

  // Appends a figure to the line.
  void Figure(const std::string& name, int64_t value);
  // Prints the line, as "soak: seconds=12 packets=340 violations=0 verdict=ok", and answers the
  // exit code: 0 only without a violation. To be called once, as the last thing.
  int Finish();

 private:
  const std::string program_;
  std::atomic<uint64_t> violations_{0};
  METRICS::Mutex mutex_;
  std::vector<std::pair<std::string, int64_t>> figures_ METRICS_GUARDED_BY(mutex_);
};

}  // namespace tidegate::stress

#include "soak/memory_watch.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "support/sanitized.h"

namespace tidegate::stress {
namespace {

constexpr size_t kWarmUp = 60;
constexpr size_t kWindow = 30;
constexpr int64_t kSlackKb = 4096;

int64_t MedianFrom(const std::vector<int64_t>& samples, size_t first) {
  const auto begin = samples.begin() + static_cast<std::ptrdiff_t>(first);
  std::vector<int64_t> window(begin, begin + kWindow);
  std::sort(window.begin(), window.end());
  return window[kWindow / 2];
}

}  // namespace

void MemoryWatch::Sample() {
  int64_t size = 0;
  int64_t resident = 0;
  if (std::ifstream("/proc/self/statm") >> size >> resident) {
    samples_.push_back(resident * ::sysconf(_SC_PAGESIZE) / 1024);
  }
}

void MemoryWatch::Judge(Report& report) const {
  if (samples_.size() < kWarmUp + 2 * kWindow) {
    report.Figure("rss_kb", samples_.empty() ? 0 : samples_.back());
    return;
  }
  const int64_t before = MedianFrom(samples_, kWarmUp);
  const int64_t after = MedianFrom(samples_, samples_.size() - kWindow);
  report.Figure("rss_kb_after_a_minute", before);
  report.Figure("rss_kb_at_the_end", after);
  // A sanitizer keeps freed memory.
  if (!kSanitized && after > before + before / 10 + kSlackKb) {
    report.Violation("memory grew from " + std::to_string(before) + " to " + std::to_string(after) +
                     " kB");
  }
}

}  // namespace tidegate::stress

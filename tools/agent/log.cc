#include "agent/log.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace tidegate::agent {
namespace {

constexpr size_t kMaxBytes = 1 << 20;
constexpr size_t kMaxText = 2000;
constexpr int kPerSecond = 10;

}  // namespace

// Without standard error there is nobody to tell.
Log::Log(int fd) : writer_(fd, kMaxBytes, [](int) {}) {}

void Log::Report(const std::string& text) {
  std::string line = "tidegate-agent: " + text.substr(0, kMaxText);
  if (text.size() > kMaxText) line += "...";
  // Names of clients can be in it.
  std::replace_if(
      line.begin(), line.end(), [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; }, '?');
  writer_.Write(line + '\n', 1);
}

void Log::ReportSome(const std::string& text) {
  uint64_t left_out = 0;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const Clock::time_point now = Clock::now();
    if (now - second_ >= std::chrono::seconds(1)) {
      second_ = now;
      in_second_ = 0;
    }
    if (++in_second_ > kPerSecond) {
      ++left_out_;
      return;
    }
    left_out = std::exchange(left_out_, 0);
  }
  Report(left_out == 0 ? text : text + " (" + std::to_string(left_out) + " more were not shown)");
}

}  // namespace tidegate::agent

#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>

#include "agent/stream_writer.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// As the journal counts them. Error: the agent cannot go on, or ends with a loss. Warning:
// something was lost or left out, or such a loss is over. Information: anything else.
enum class LogLevel { kError = 3, kWarning = 4, kInfo = 6 };

// A whole line for this descriptor, under the program's name: one of UTF-8 without control
// characters, cut off where it is far too long. It begins with "<4>" and the like if it goes to the
// journal, which takes that off. Safe from any number of threads.
std::string LogLine(int fd, LogLevel level, std::string_view text);

// The agent's own lines on a descriptor.
//
// Threads: Report and ReportSome from any, and they never wait; Finish from one, as the last.
// Borrows the descriptor. Lines that nobody reads are dropped, the oldest first.
class Log {
 public:
  explicit Log(int fd);

  // A line of these texts, one after the other.
  void ReportJoined(LogLevel level, std::initializer_list<std::string_view> texts) noexcept;
  void Report(const std::string& text, LogLevel level = LogLevel::kWarning) noexcept {
    ReportJoined(level, {text});
  }

  // For warnings that a client can cause at will: beyond ten in a second they are only counted, and
  // the next one that is shown tells how many were not.
  void ReportSome(const std::string& text) noexcept;

  // Says that memory has run out, once a minute at most, and needs none for it.
  void ReportOutOfMemory() noexcept;

  void Finish(std::chrono::milliseconds timeout) { writer_.Finish(timeout); }

 private:
  using Clock = std::chrono::steady_clock;

  const int fd_;
  const bool to_journal_;
  std::atomic<uint64_t> lost_{0};  // lines
  StreamWriter writer_;
  std::atomic<Clock::rep> next_alarm_{std::numeric_limits<Clock::rep>::min()};
  METRICS::Mutex mutex_;
  Clock::time_point second_ METRICS_GUARDED_BY(mutex_);
  int in_second_ METRICS_GUARDED_BY(mutex_) = 0;
  uint64_t left_out_ METRICS_GUARDED_BY(mutex_) = 0;
};

}  // namespace tidegate::agent

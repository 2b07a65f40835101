#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <mutex>
#include <string>
#include <string_view>

#include "agent/stream_writer.h"

namespace tidegate::agent {

// The agent's own lines, under the program's name, on a descriptor.
//
// Threads: Report and ReportSome from any, and they never wait; Finish from one, as the last.
// Borrows the descriptor. Lines that nobody reads are dropped, the oldest first.
class Log {
 public:
  explicit Log(int fd);

  // A line of these texts, one after the other.
  void ReportJoined(std::initializer_list<std::string_view> texts) noexcept;
  void Report(const std::string& text) noexcept { ReportJoined({text}); }

  // For lines that a client can cause at will: beyond ten in a second they are only counted, and
  // the next one that is shown tells how many were not.
  void ReportSome(const std::string& text) noexcept;

  // Says that memory has run out, once a minute at most, and needs none for it.
  void ReportOutOfMemory() noexcept;

  void Finish(std::chrono::milliseconds timeout) { writer_.Finish(timeout); }

 private:
  using Clock = std::chrono::steady_clock;

  const int fd_;
  StreamWriter writer_;
  std::atomic<Clock::rep> next_alarm_{std::numeric_limits<Clock::rep>::min()};
  std::mutex mutex_;  // of all below
  Clock::time_point second_;
  int in_second_ = 0;
  uint64_t left_out_ = 0;
};

}  // namespace tidegate::agent

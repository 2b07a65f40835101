#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "agent/stream_writer.h"

namespace tidegate::agent {

// The agent's own lines, under the program's name, on a descriptor.
//
// Threads: Report and ReportSome from any, and they never wait; Finish from one, as the last.
// Borrows the descriptor. Lines that nobody reads are dropped, the oldest first.
class Log {
 public:
  explicit Log(int fd);

  void Report(const std::string& text);

  // For lines that a client can cause at will: beyond ten in a second they are only counted, and
  // the next one that is shown tells how many were not.
  void ReportSome(const std::string& text);

  void Finish(std::chrono::milliseconds timeout) { writer_.Finish(timeout); }

 private:
  using Clock = std::chrono::steady_clock;

  StreamWriter writer_;
  std::mutex mutex_;  // of all below
  Clock::time_point second_;
  int in_second_ = 0;
  uint64_t left_out_ = 0;
};

}  // namespace tidegate::agent

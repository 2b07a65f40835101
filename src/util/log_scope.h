#pragma once

#include <cassert>
#include <cstdarg>
#include <cstddef>
#include <optional>

#include "tidegate/log.h"
#include "util/held_locks.h"
#include "util/process_count.h"

namespace METRICS {

/// A line that waits for the sink. Its text comes after it in memory.
struct WaitingLine {
  char* Text() { return reinterpret_cast<char*>(this + 1); }

  WaitingLine* next;
  tidegate::LogLevel level;
  size_t prefix_bytes;  ///< of the text; they are for standard output only
  size_t bytes;         ///< with the line feed
};

/// Lines in the order in which they were written; whoever takes them out frees them.
struct WaitingLines {
  void Append(WaitingLine* line);

  WaitingLine* first = nullptr;
  WaitingLine* last = nullptr;
  size_t bytes = 0;
};

/// Keeps the lines that its thread writes for the sink, and gives them to it at its end: stands
/// before the guard of a lock under which lines are written. Of several on a thread the outermost
/// does it. Where there is no sink lines go out at once.
class LogScope {
 public:
  LogScope() {
    if (outermost_ == nullptr) {
      outermost_ = this;
    }
  }
  ~LogScope() {
    if (outermost_ == this) {
      outermost_ = nullptr;
      assert(HeldLocks() == 0);
      if (lines_.first != nullptr) {
        Deliver(lines_.first);
      }
    }
  }
  LogScope(const LogScope&) = delete;
  LogScope& operator=(const LogScope&) = delete;

 protected:
  /// Those of this thread. REQUIRES: it is in a scope.
  static WaitingLines& Lines() { return outermost_->lines_; }

 private:
  friend void WriteLine(tidegate::LogLevel level, size_t prefix_bytes, const char* format,
                        std::va_list args) noexcept;

  static void Deliver(WaitingLine* first) noexcept;

  static __thread LogScope* outermost_ __attribute__((tls_model("initial-exec")));

  WaitingLines lines_;
};

/// A scope in which threads of the library end. As a sink on one of them may wait for what this
/// thread holds, none is called there meanwhile; what they write is delivered by this scope. In a
/// sink it does not wait for the sinks that are running. REQUIRES: this thread is none of them.
class ThreadsEndLogScope : private LogScope {
 public:
  ThreadsEndLogScope();
  ~ThreadsEndLogScope();

 private:
  std::optional<ProcessCount::Stay> end_;
};

/// Tells that this thread is one of the library.
void MarkLibraryThread();

/// Writes a line that the level lets through to the sink or to standard output. Its text begins
/// with `prefix_bytes` that only standard output gets, and ends in a line feed.
void WriteLine(tidegate::LogLevel level, size_t prefix_bytes, const char* format,
               std::va_list args) noexcept;

}  // namespace METRICS

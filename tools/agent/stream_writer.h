#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "agent/bounded_queue.h"

namespace tidegate::agent {

// Whole lines, with what each of them counts for where it is lost.
struct CountedLines {
  std::string text;
  std::vector<uint8_t> counts;

  uint64_t Count() const;
};

// Writes lines to a descriptor on a thread of its own, so that a reader who does not read delays
// nobody else. The lines that wait are bounded by bytes, and the oldest are dropped.
//
// A write that fails loses the rest of the lines that were given together; those given next are
// tried again, unless the error is final. A line that was broken off is then ended by "...", so
// that no other one follows on it.
//
// Threads: Write from any; Finish from one, and no Write after it. Borrows the descriptor.
class StreamWriter {
 public:
  // `lost` counts lines that were not written whole, as soon as that is known. `on_change` is
  // called on the writer's thread with the errno when writing begins to fail or fails in another
  // way, and with 0 when it works again. It throws nothing.
  StreamWriter(int fd, size_t max_bytes, std::function<void(int)> on_change,
               std::atomic<uint64_t>* lost);
  ~StreamWriter() { Finish(std::chrono::milliseconds(0)); }
  StreamWriter(const StreamWriter&) = delete;
  StreamWriter& operator=(const StreamWriter&) = delete;

  // Whether nothing more can be written after this errno: the reader of a pipe or a socket has
  // gone, or there is no descriptor.
  static bool IsFinal(int error);

  // Never waits. Without memory for the lines, throws and drops them uncounted.
  void Write(CountedLines lines);

  // Writes the lines that wait, but does not wait for a reader after `timeout`, and ends the
  // thread.
  void Finish(std::chrono::milliseconds timeout);

  // The errno of the last write, 0 if that worked.
  int error() const { return error_; }

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  void WriteLines(const CountedLines& lines);
  // Removes the written part from `text`. False if something is left.
  bool WriteAll(std::string_view* text);
  void SetError(int error);
  bool GaveUp() const { return Clock::now().time_since_epoch().count() > deadline_; }

  const int fd_;
  const size_t write_size_;  // bytes of one write that cannot block after poll
  const std::function<void(int)> on_change_;
  std::atomic<uint64_t>* const lost_;
  BoundedQueue<CountedLines> queue_;
  std::atomic<int> error_{0};
  std::atomic<Clock::rep> deadline_;  // set by Finish
  std::string_view ending_;           // of a line that was broken off, to be written first
  std::thread thread_;
};

}  // namespace tidegate::agent

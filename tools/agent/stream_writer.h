#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "agent/bounded_queue.h"

namespace tidegate::agent {

// Writes text to a descriptor on a thread of its own, so that a reader who does not read holds up
// nobody else: what waits is bounded by bytes, and the oldest is dropped.
//
// Threads: Write from any; Finish from one, and no Write after it. Borrows the descriptor.
class StreamWriter {
 public:
  // `on_error` is called on the writer's thread, once, with the errno that ends the writing.
  // It throws nothing.
  StreamWriter(int fd, size_t max_bytes, std::function<void(int)> on_error);
  ~StreamWriter() { Finish(std::chrono::milliseconds(0)); }
  StreamWriter(const StreamWriter&) = delete;
  StreamWriter& operator=(const StreamWriter&) = delete;

  // Never waits. Returns how many lines were dropped, of this or older text. Without memory for it,
  // throws and drops it alone.
  uint64_t Write(std::string text, uint64_t lines);

  // Writes what waits, but does not wait for a reader after `timeout`, and ends the thread. Returns
  // how many lines were not written whole.
  uint64_t Finish(std::chrono::milliseconds timeout);

  // The errno that ended the writing, or 0.
  int error() const { return error_; }

 private:
  using Clock = std::chrono::steady_clock;

  struct Chunk {
    std::string text;
    uint64_t lines = 0;
  };

  void Run();
  // False if the writing has ended.
  bool WriteChunk(std::string_view text);
  bool GaveUp() const { return Clock::now().time_since_epoch().count() > deadline_; }

  const int fd_;
  const size_t write_size_;  // bytes of one write that cannot block after poll
  const std::function<void(int)> on_error_;
  BoundedQueue<Chunk> queue_;
  std::atomic<int> error_{0};
  std::atomic<Clock::rep> deadline_;    // set by Finish
  std::atomic<uint64_t> unwritten_{0};  // lines that the thread took and did not write
  std::thread thread_;
};

}  // namespace tidegate::agent

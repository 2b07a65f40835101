#include "agent/stream_writer.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <limits>
#include <utility>

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;

constexpr int kPollMillis = 50;  // between two looks at the deadline

// What poll promises for a pipe is room for PIPE_BUF bytes.
size_t WriteSize(int fd) {
  struct stat info;
  return fstat(fd, &info) == 0 && S_ISREG(info.st_mode) ? size_t{1} << 20 : size_t{PIPE_BUF};
}

}  // namespace

StreamWriter::StreamWriter(int fd, size_t max_bytes, std::function<void(int)> on_error)
    : fd_(fd),
      write_size_(WriteSize(fd)),
      on_error_(std::move(on_error)),
      queue_(max_bytes),
      deadline_(std::numeric_limits<Clock::rep>::max()),
      thread_([this] { Run(); }) {}

uint64_t StreamWriter::Write(std::string text, uint64_t lines) {
  if (error_ != 0) return lines;
  const size_t bytes = text.size();
  uint64_t dropped = 0;
  for (const auto& slot : queue_.Push({std::move(text), lines}, bytes)) dropped += slot.first.lines;
  return dropped;
}

uint64_t StreamWriter::Finish(milliseconds timeout) {
  if (!thread_.joinable()) return 0;
  deadline_ = (Clock::now() + timeout).time_since_epoch().count();
  queue_.Close();
  thread_.join();
  return unwritten_;
}

void StreamWriter::Run() {
  using Result = BoundedQueue<Chunk>::Result;
  Chunk chunk;
  for (;;) {
    const Result result = queue_.Pop(&chunk, milliseconds(1000));
    if (result == Result::kClosed) return;
    if (result == Result::kItem && !WriteChunk(chunk.text)) unwritten_ += chunk.lines;
  }
}

bool StreamWriter::WriteChunk(std::string_view text) {
  while (!text.empty() && error_ == 0) {
    // Behind the deadline, what can be written without waiting still is.
    const bool late = GaveUp();
    pollfd ready = {fd_, POLLOUT, 0};
    if (poll(&ready, 1, late ? 0 : kPollMillis) <= 0) {
      if (late) return false;
      continue;
    }
    const ssize_t written = write(fd_, text.data(), std::min(text.size(), write_size_));
    if (written >= 0) {
      text.remove_prefix(static_cast<size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {
      error_ = errno;
      on_error_(errno);
    }
  }
  return text.empty();
}

}  // namespace tidegate::agent

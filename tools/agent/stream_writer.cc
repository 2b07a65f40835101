#include "agent/stream_writer.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <limits>
#include <numeric>
#include <utility>

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;

constexpr int kPollMillis = 50;  // between two looks at the deadline

constexpr std::string_view kEnding = "...\n";

// For a pipe, poll promises room for PIPE_BUF bytes.
size_t WriteSize(int fd) {
  struct stat info;
  return fstat(fd, &info) == 0 && S_ISREG(info.st_mode) ? size_t{1} << 20 : size_t{PIPE_BUF};
}

uint64_t SumFrom(const std::vector<uint8_t>& counts, std::ptrdiff_t first) {
  return std::accumulate(counts.begin() + first, counts.end(), uint64_t{0});
}

}  // namespace

uint64_t CountedLines::Count() const { return SumFrom(counts, 0); }

StreamWriter::StreamWriter(int fd, size_t max_bytes, std::function<void(int)> on_change,
                           std::atomic<uint64_t>* lost)
    : fd_(fd),
      write_size_(WriteSize(fd)),
      on_change_(std::move(on_change)),
      lost_(lost),
      queue_(max_bytes),
      deadline_(std::numeric_limits<Clock::rep>::max()),
      thread_([this] { Run(); }) {}

bool StreamWriter::IsFinal(int error) {
  return error == EPIPE || error == ECONNRESET || error == EBADF;
}

void StreamWriter::Write(CountedLines lines) {
  if (IsFinal(error_)) {
    *lost_ += lines.Count();
    return;
  }
  const size_t bytes = lines.text.size() + lines.counts.size();
  for (const auto& slot : queue_.Push(std::move(lines), bytes)) *lost_ += slot.first.Count();
}

void StreamWriter::Finish(milliseconds timeout) {
  if (!thread_.joinable()) return;
  deadline_ = (Clock::now() + timeout).time_since_epoch().count();
  queue_.Close();
  thread_.join();
}

void StreamWriter::Run() {
  using Result = BoundedQueue<CountedLines>::Result;
  for (;;) {
    CountedLines lines;
    const Result result = queue_.Pop(&lines, milliseconds(1000));
    if (result == Result::kClosed) return;
    if (result == Result::kItem) WriteLines(lines);
  }
}

void StreamWriter::WriteLines(const CountedLines& lines) {
  std::string_view rest = lines.text;
  if (WriteAll(&ending_) && WriteAll(&rest)) return;
  const std::string_view written(lines.text.data(), lines.text.size() - rest.size());
  *lost_ += SumFrom(lines.counts, std::count(written.begin(), written.end(), '\n'));
  if (!written.empty() && written.back() != '\n') ending_ = kEnding;
}

bool StreamWriter::WriteAll(std::string_view* text) {
  while (!text->empty() && !IsFinal(error_)) {
    // After the deadline, bytes that can be written without waiting still are.
    const bool late = GaveUp();
    pollfd ready = {fd_, POLLOUT, 0};
    if (poll(&ready, 1, late ? 0 : kPollMillis) <= 0) {
      if (late) return false;
      continue;
    }
    const ssize_t written = write(fd_, text->data(), std::min(text->size(), write_size_));
    if (written >= 0) {
      text->remove_prefix(static_cast<size_t>(written));
      SetError(0);
    } else if (errno == EAGAIN) {
      if (late) return false;
      // Somebody made the descriptor one that does not block, and poll promised too much.
      std::this_thread::sleep_for(milliseconds(kPollMillis));
    } else if (errno != EINTR) {
      SetError(errno);
      return false;
    }
  }
  return text->empty();
}

void StreamWriter::SetError(int error) {
  if (error_.exchange(error) != error) on_change_(error);
}

}  // namespace tidegate::agent

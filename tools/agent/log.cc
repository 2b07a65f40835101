#include "agent/log.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <new>
#include <utility>

#include "agent/utf8.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

constexpr size_t kMaxBytes = 1 << 20;
constexpr size_t kMaxText = 2000;
constexpr int kPerSecond = 10;
constexpr std::chrono::minutes kAlarmInterval(1);

constexpr size_t kPrefixSize = 3;

// systemd names the device and the inode of the stream that it made.
bool GoesToJournal(int fd) {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat info;
  if (stream == nullptr || fstat(fd, &info) != 0) return false;
  char own[48];  // two numbers of 64 bits
  std::snprintf(own, sizeof(own), "%ju:%ju", uintmax_t{info.st_dev}, uintmax_t{info.st_ino});
  return std::string_view(own) == stream;
}

// Journals hide a line that is not UTF-8. A backslash stays, as names can be quoted in it already.
std::string WithoutBadUtf8(std::string_view line) {
  std::string shown;
  ForEachCharacter(line, [&shown](std::string_view rest, size_t size) {
    if (size == 0) {
      AppendHexByte(rest.front(), &shown);
    } else {
      shown += rest.substr(0, size);
    }
  });
  return shown;
}

std::string MakeLine(bool to_journal, LogLevel level,
                     std::initializer_list<std::string_view> texts) {
  std::string line;
  if (to_journal) line = '<' + std::to_string(static_cast<int>(level)) + '>';
  line += "tidegate-agent: ";
  const size_t most = line.size() + kMaxText;
  for (const std::string_view text : texts) line += text;
  if (line.size() > most) {
    line.resize(most);
    line += "...";
  }
  // Names of clients can be in it.
  std::replace_if(
      line.begin(), line.end(), [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; }, '?');
  return WithoutBadUtf8(line) + '\n';
}

}  // namespace

std::string LogLine(int fd, LogLevel level, std::string_view text) {
  return MakeLine(GoesToJournal(fd), level, {text});
}

// Without standard error there is nobody to tell.
Log::Log(int fd)
    : fd_(fd),
      to_journal_(GoesToJournal(fd)),
      writer_(
          fd, kMaxBytes, [](int) {}, &lost_) {}

void Log::ReportJoined(LogLevel level, std::initializer_list<std::string_view> texts) noexcept {
  try {
    writer_.Write({MakeLine(to_journal_, level, texts), {1}});
  } catch (const std::bad_alloc&) {
    ReportOutOfMemory();
  }
}

void Log::ReportSome(const std::string& text) noexcept {
  uint64_t left_out = 0;
  {
    const WriteGuard lock(mutex_);
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
  if (left_out == 0) return Report(text);
  char number[24];  // of 64 bits
  const char* const end = std::to_chars(std::begin(number), std::end(number), left_out).ptr;
  ReportJoined(LogLevel::kWarning,
               {text, " (", {number, static_cast<size_t>(end - number)}, " more were not shown)"});
}

void Log::ReportOutOfMemory() noexcept {
  constexpr std::string_view kLine =
      "<3>tidegate-agent: out of memory: what could not be kept is dropped, and counted\n";
  const Clock::rep now = Clock::now().time_since_epoch().count();
  Clock::rep next = next_alarm_;
  if (now < next) return;
  const Clock::rep later = now + Clock::duration(kAlarmInterval).count();
  if (!next_alarm_.compare_exchange_strong(next, later)) return;
  // Past the writer, which would have to keep it. Where poll says so, a line can be written whole.
  pollfd ready = {fd_, POLLOUT, 0};
  if (poll(&ready, 1, 0) <= 0) return;
  const std::string_view line = to_journal_ ? kLine : kLine.substr(kPrefixSize);
  [[maybe_unused]] const ssize_t written = write(fd_, line.data(), line.size());
}

}  // namespace tidegate::agent

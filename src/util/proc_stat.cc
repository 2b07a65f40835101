#include "util/proc_stat.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "util/wait.h"

namespace METRICS {
namespace {

/// A descriptor for the time of a reading. Keeps `errno` as it is when it goes.
class ReadOnly {
 public:
  ReadOnly(const char* path, int flags) : fd_(::open(path, O_RDONLY | O_CLOEXEC | flags)) {}
  ~ReadOnly() {
    if (fd_ >= 0) {
      const int saved = errno;
      ::close(fd_);
      errno = saved;
    }
  }
  ReadOnly(const ReadOnly&) = delete;
  ReadOnly& operator=(const ReadOnly&) = delete;
  int Get() const { return fd_; }

 private:
  const NoCancellation uncancelled_;
  const int fd_;
};

/// Takes the next word, up to a blank or the end of the line.
std::string_view NextWord(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  const std::string_view word = text.substr(0, text.find_first_of(" \n"));
  text.remove_prefix(word.size());
  return word;
}

std::optional<uint64_t> NumberOf(std::string_view word) {
  uint64_t number = 0;
  const char* const end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data(), end, number);
  if (error != std::errc() || stop != end) {
    return std::nullopt;
  }
  return number;
}

}  // namespace

std::optional<ProcStat> ParseProcStat(std::string_view text) {
  ProcStat stat{};
  // The fields in the order in which they stand there, counted from 1 as in proc(5).
  const struct {
    int field;
    uint64_t ProcStat::*member;
  } kWanted[] = {
      {10, &ProcStat::minor_faults},  {12, &ProcStat::major_faults},   {14, &ProcStat::user_ticks},
      {15, &ProcStat::system_ticks},  {20, &ProcStat::threads},        {22, &ProcStat::start_ticks},
      {23, &ProcStat::virtual_bytes}, {24, &ProcStat::resident_pages},
  };
  // The second field is the name in parentheses, which may have anything in it but an end.
  const size_t name_end = text.rfind(')');
  if (name_end == std::string_view::npos) {
    return std::nullopt;
  }
  text.remove_prefix(name_end + 1);
  int field = 3;
  for (const auto& wanted : kWanted) {
    for (; field < wanted.field; ++field) {
      NextWord(text);
    }
    const std::optional<uint64_t> number = NumberOf(NextWord(text));
    if (!number.has_value()) {
      return std::nullopt;
    }
    stat.*wanted.member = *number;
    ++field;
  }
  return stat;
}

std::optional<std::string_view> ReadBeginning(const char* path, char* buffer, size_t size) {
  const ReadOnly file(path, 0);
  if (file.Get() < 0) {
    return std::nullopt;
  }
  size_t length = 0;
  while (length < size) {
    const ssize_t got = ::read(file.Get(), buffer + length, size - length);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      return std::nullopt;
    }
    if (got == 0) {
      break;
    }
    length += static_cast<size_t>(got);
  }
  return std::string_view(buffer, length);
}

std::optional<uint64_t> CountDescriptors(const char* folder) {
  const ReadOnly opened(folder, O_DIRECTORY);
  if (opened.Get() < 0) {
    return std::nullopt;
  }
  uint64_t entries = 0;
  alignas(dirent64) char buffer[4096];
  ssize_t got = 0;
  while ((got = ::getdents64(opened.Get(), buffer, sizeof(buffer))) > 0) {
    for (ssize_t at = 0; at < got; ++entries) {
      at += reinterpret_cast<const dirent64*>(buffer + at)->d_reclen;
    }
  }
  constexpr uint64_t kNoDescriptors = 3;  // ".", ".." and that of this call
  if (got < 0 || entries < kNoDescriptors) {
    return std::nullopt;
  }
  return entries - kNoDescriptors;
}

}  // namespace METRICS

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace METRICS {

/// What the kernel tells of a process in one line of text: the parts of it that are metrics.
struct ProcStat {
  uint64_t minor_faults;  ///< pages that needed no reading from a disk
  uint64_t major_faults;
  uint64_t user_ticks;  ///< of `sysconf(_SC_CLK_TCK)` per second, as the other ticks
  uint64_t system_ticks;
  uint64_t threads;
  uint64_t start_ticks;  ///< since the machine has started
  uint64_t virtual_bytes;
  uint64_t resident_pages;
};

/// From the text of /proc/PID/stat. Nothing where a number is missing or is none. The name of the
/// program may have blanks, parentheses and line feeds.
std::optional<ProcStat> ParseProcStat(std::string_view text);

/// Reads the beginning of a file, `size` bytes at most, into `buffer`. Nothing where it cannot be
/// read; `errno` says why. Allocates nothing.
std::optional<std::string_view> ReadBeginning(const char* path, char* buffer, size_t size);

/// The open descriptors of this process, without that of the call, as the entries of `folder`
/// ("/proc/self/fd"); nothing where it cannot be read, and `errno` says why. Allocates nothing.
std::optional<uint64_t> CountDescriptors(const char* folder);

}  // namespace METRICS

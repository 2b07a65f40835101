#include "agent/slot_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <sstream>

#include "agent/unique_fd.h"

namespace tidegate::agent {
namespace {

constexpr const char* kFirstLine = "tidegate-agent slots 1";
constexpr size_t kMaxLineBytes = 80;
constexpr size_t kMaxBytes = (ProcessSlots::kMaxSlots + 1) * kMaxLineBytes;

std::string ReadOwnFile(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat info = {};
  if (!file.valid() || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
      info.st_uid != geteuid() || static_cast<size_t>(info.st_size) > kMaxBytes) {
    return {};
  }
  std::string text(static_cast<size_t>(info.st_size), '\0');
  const ssize_t size = read(file.get(), text.data(), text.size());
  text.resize(size > 0 ? static_cast<size_t>(size) : 0);
  return text;
}

}  // namespace

std::vector<ProcessSlots::Taken> ReadSlots(const std::string& path) {
  std::istringstream lines(ReadOwnFile(path));
  std::vector<ProcessSlots::Taken> slots;
  std::string first;
  if (!std::getline(lines, first) || first != kFirstLine) return slots;
  ProcessSlots::Taken slot;
  while (lines >> slot.process.pid >> slot.process.number >> slot.identity >> slot.number) {
    slots.push_back(slot);
  }
  return slots;
}

bool WriteSlots(const std::string& path, const std::vector<ProcessSlots::Taken>& slots) {
  std::string text = std::string(kFirstLine) + '\n';
  for (const ProcessSlots::Taken& slot : slots) {
    text += std::to_string(slot.process.pid) + ' ' + std::to_string(slot.process.number) + ' ' +
            std::to_string(slot.identity) + ' ' + std::to_string(slot.number) + '\n';
  }
  const std::string made = path + ".new";
  unlink(made.c_str());
  const UniqueFd file(
      open(made.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.valid()) return false;
  errno = ENOSPC;  // a short write leaves it as it is
  return write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
         rename(made.c_str(), path.c_str()) == 0;
}

}  // namespace tidegate::agent

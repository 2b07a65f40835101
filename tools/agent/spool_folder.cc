#include "agent/spool_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

namespace tidegate::agent {
namespace {

constexpr char kLockName[] = "lock";
constexpr char kInUse[] = "another agent uses it";
constexpr std::string_view kSuffix = ".spool";
constexpr size_t kDigits = 16;
constexpr uint64_t kLastNumber = uint64_t{1} << 62;  // so that there is always a next one

std::string ErrorText(int error) { return std::generic_category().message(error); }

bool IsOwnFile(const UniqueFd& file) {
  struct stat info = {};
  return fstat(file.get(), &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid();
}

// Why nothing may be kept in the folder; empty if it may.
std::string Refusal(const UniqueFd& folder) {
  struct stat info = {};
  if (fstat(folder.get(), &info) != 0) return ErrorText(errno);
  if (info.st_uid != geteuid()) return "it belongs to user " + std::to_string(info.st_uid);
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "other users may write to it";
  return "";
}

// 0 if the name is not that of a segment.
uint64_t NumberOf(const std::string& name) {
  uint64_t number = 0;
  if (name.size() != kDigits + kSuffix.size()) return 0;
  std::from_chars(name.data(), name.data() + kDigits, number, 16);
  return number <= kLastNumber && SpoolFolder::NameOf(number) == name ? number : 0;
}

}  // namespace

std::string SpoolFolder::NameOf(uint64_t number) {
  char name[kDigits + kSuffix.size() + 1];
  std::snprintf(name, sizeof(name), "%016llx%s", static_cast<unsigned long long>(number),
                kSuffix.data());
  return name;
}

bool SpoolFolder::Open(const std::string& path, std::string* error) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    *error = "cannot make it: " + ErrorText(errno);
    return false;
  }
  UniqueFd folder;
  UniqueFd lock;
  if (!Lock(path, O_CREAT, &folder, &lock, error)) return false;
  folder_ = std::move(folder);
  lock_ = std::move(lock);
  return true;
}

bool SpoolFolder::Lock(const std::string& path, int flags, UniqueFd* folder, UniqueFd* lock,
                       std::string* error) {
  *folder = UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  *error = folder->valid() ? Refusal(*folder) : ErrorText(errno);
  if (!error->empty()) return false;
  *lock = UniqueFd(
      openat(folder->get(), kLockName, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags, 0600));
  if ((flags & O_CREAT) == 0 && !lock->valid() && errno == ENOENT) return true;
  if (!lock->valid() || !IsOwnFile(*lock)) {
    *error = "no lock file can be made in it" + (lock->valid() ? "" : ": " + ErrorText(errno));
    return false;
  }
  // A system that knows no such locks refuses with other errors; there the risk stays.
  if (flock(lock->get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    *error = kInUse;
    return false;
  }
  return true;
}

SpoolFolder::Use SpoolFolder::TryToUse(const std::string& path, std::string* error) {
  UniqueFd folder;
  UniqueFd lock;
  const bool missing = access(path.c_str(), F_OK) != 0 && errno == ENOENT;
  if (!missing && !Lock(path, 0, &folder, &lock, error)) {
    return *error == kInUse ? Use::kInUse : Use::kNot;
  }
  const std::string written =
      missing ? std::filesystem::absolute(path).parent_path().string() : path;
  if (access(written.c_str(), W_OK | X_OK) == 0) return Use::kPossible;
  *error = "cannot write to " + written + ": " + ErrorText(errno);
  return Use::kNot;
}

bool SpoolFolder::List(Content* content, std::string* error) const {
  const int copy = openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, int (*)(DIR*)> names(copy < 0 ? nullptr : fdopendir(copy), closedir);
  if (names == nullptr) {
    *error = ErrorText(errno);
    return false;
  }
  while (const dirent* entry = readdir(names.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || name == kLockName) continue;
    if (const uint64_t number = NumberOf(name); number != 0) {
      content->numbers.push_back(number);
    } else {
      content->foreign.push_back(name);
    }
  }
  std::sort(content->numbers.begin(), content->numbers.end());
  return true;
}

UniqueFd SpoolFolder::OpenSegment(uint64_t number) const {
  UniqueFd file(
      openat(folder_.get(), NameOf(number).c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file.valid() || IsOwnFile(file)) return file;
  errno = EPERM;
  return UniqueFd();
}

UniqueFd SpoolFolder::MakeSegment(uint64_t number) const {
  return UniqueFd(openat(folder_.get(), NameOf(number).c_str(),
                         O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

bool SpoolFolder::Remove(uint64_t number) const {
  return unlinkat(folder_.get(), NameOf(number).c_str(), 0) == 0;
}

bool SpoolFolder::Sync() const { return fsync(folder_.get()) == 0; }

}  // namespace tidegate::agent

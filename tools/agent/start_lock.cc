#include "agent/start_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

namespace tidegate::agent {
namespace {

constexpr int kTries = 20;
constexpr std::chrono::milliseconds kPause(50);

bool IsOwnFile(const struct stat& info) {
  return S_ISREG(info.st_mode) && info.st_uid == geteuid();
}

}  // namespace

StartLock::~StartLock() {
  if (file_.valid() && IsCurrent()) unlink(path_.c_str());
}

bool StartLock::Take(const std::string& path, std::string* error) {
  path_ = path;
  for (int i = 0; i < kTries; ++i) {
    // Opening it neither waits nor follows a link, whatever kind of file it is.
    UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    const int failure = errno;
    struct stat info = {};
    const bool seen = (file.valid() ? fstat(file.get(), &info) : lstat(path.c_str(), &info)) == 0;
    if (seen && !IsOwnFile(info)) {
      *error = path + " of user " + std::to_string(info.st_uid) +
               " stands where the lock file has to be";
      return false;
    }
    if (!file.valid()) {
      *error =
          "cannot open the lock file " + path + ": " + std::generic_category().message(failure);
      return false;
    }
    // Where files cannot be locked at all, the small risk stays.
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      std::this_thread::sleep_for(kPause);
      continue;
    }
    file_ = std::move(file);
    if (IsCurrent()) return true;
    file_.Reset();
  }
  *error = "another process keeps " + path + " locked";
  return false;
}

bool StartLock::IsCurrent() const {
  struct stat held = {};
  struct stat named = {};
  return fstat(file_.get(), &held) == 0 && lstat(path_.c_str(), &named) == 0 &&
         held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

}  // namespace tidegate::agent

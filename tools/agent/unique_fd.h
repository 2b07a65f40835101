#pragma once

#include <unistd.h>

#include <utility>

namespace tidegate::agent {

// Owns one file descriptor and closes it. -1 is none. Not for use from several threads at once.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~UniqueFd() {
    if (fd_ >= 0) close(fd_);
  }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void Reset() { *this = UniqueFd(); }
  int Release() { return std::exchange(fd_, -1); }  // to a new owner

 private:
  int fd_;
};

}  // namespace tidegate::agent

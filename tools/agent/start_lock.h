#pragma once

#include <string>

#include "agent/unique_fd.h"

namespace tidegate::agent {

// Keeps agents that start on one socket apart: of two, each could take the socket that the other
// has bound but not yet listens on for a stale one. A file with the mode 0600, so that no other
// user can hold the lock; it is there only while an agent starts.
//
// Threads: one. Owns the file, and removes it at its end.
class StartLock {
 public:
  StartLock() = default;
  ~StartLock();
  StartLock(const StartLock&) = delete;
  StartLock& operator=(const StartLock&) = delete;

  // Makes and locks the file `path`, once per object. Waits for another agent for a second at most.
  // Returns false and says why in `error`; what is no file of this user is left alone.
  bool Take(const std::string& path, std::string* error);

 private:
  // Whether the name still is that of the file, which the one that held it removes.
  bool IsCurrent() const;

  std::string path_;
  UniqueFd file_;  // valid while the lock is held
};

}  // namespace tidegate::agent

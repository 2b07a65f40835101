#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/unique_fd.h"

namespace tidegate::agent {

// The folder of a spool: this user's own, written by nobody else and by one process at a time,
// which keeps a file in it locked. Segments are files named by a number. Links are never followed.
//
// Threads: one at a time. Errors are texts for the log.
class SpoolFolder {
 public:
  struct Content {
    std::vector<uint64_t> numbers;     // of segments, ascending
    std::vector<std::string> foreign;  // names of what is none, without the lock
  };

  // Makes the folder if need be (one level, mode 0700) and locks it. False with `error` if that
  // cannot be, or another process has it.
  bool Open(const std::string& path, std::string* error);
  // What Open would find, as far as that can be told without a change of anything; `error` says
  // why it would fail.
  enum class Use { kPossible, kInUse, kNot };
  static Use TryToUse(const std::string& path, std::string* error);
  bool is_open() const { return lock_.valid(); }

  bool List(Content* content, std::string* error) const;

  // To read and to write. Not valid, with errno, if it is not there or no file of this user.
  UniqueFd OpenSegment(uint64_t number) const;
  // A new one, mode 0600. Not valid, with errno, if that cannot be.
  UniqueFd MakeSegment(uint64_t number) const;
  bool Remove(uint64_t number) const;

  // Has the names in it on the disk.
  bool Sync() const;

  static std::string NameOf(uint64_t number);

 private:
  // With `flags` of O_CREAT it makes the lock file, without it one that is missing is fine.
  static bool Lock(const std::string& path, int flags, UniqueFd* folder, UniqueFd* lock,
                   std::string* error);

  UniqueFd folder_;
  UniqueFd lock_;  // valid while the folder is this object's
};

}  // namespace tidegate::agent

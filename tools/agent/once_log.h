#pragma once

#include <cstddef>
#include <string>
#include <unordered_set>
#include <utility>

#include "agent/report.h"

namespace tidegate::agent {

// Reports each line once, for findings that come again with every packet. After kMaxLines lines it
// reports nothing more.
//
// Not thread-safe.
class OnceLog {
 public:
  static constexpr size_t kMaxLines = 1000;

  explicit OnceLog(Report report) : report_(std::move(report)) {}

  // No line is reported any more, so the caller need not make one.
  bool IsFull() const { return reported_.size() >= kMaxLines; }

  void Add(const std::string& line);

 private:
  const Report report_;
  std::unordered_set<size_t> reported_;  // hashes
};

}  // namespace tidegate::agent

#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_set>
#include <utility>

namespace tidegate::agent {

// Reports names that have become one. Each line once, as the points of such names come again and
// again; after kMaxLines of them nothing more.
//
// Not thread-safe.
class CollisionLog {
 public:
  using Reporter = std::function<void(const std::string& line)>;

  static constexpr size_t kMaxLines = 1000;

  explicit CollisionLog(Reporter report) : report_(std::move(report)) {}

  // No line is reported any more, so none need be made.
  bool IsFull() const { return reported_.size() >= kMaxLines; }

  void Report(const std::string& line);

 private:
  const Reporter report_;
  std::unordered_set<size_t> reported_;  // hashes
};

}  // namespace tidegate::agent

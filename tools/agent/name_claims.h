#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "agent/collision_log.h"

namespace tidegate::agent {

// Who holds which name on the page of metrics. Fitting names to the receiver's alphabet can make
// two of them one, and what they name must not be mixed: the first to claim a name keeps it until
// it has released it as often as it claimed it.
//
// Not thread-safe. Reports each pair that collides once, as CollisionLog does, in a line with the
// name, its holder and the one that came too late.
class NameClaims {
 public:
  explicit NameClaims(CollisionLog::Reporter report) : log_(std::move(report)) {}

  // False if another owner holds the name.
  bool Claim(const std::string& name, std::string_view owner);
  // REQUIRES: a claim of this owner that it has not yet released.
  void Release(const std::string& name);

  // What all names that are held take, roughly.
  size_t bytes() const { return bytes_; }

 private:
  struct Holder {
    std::string owner;
    uint64_t claims = 0;
  };

  static size_t BytesOf(const std::string& name, const Holder& holder);
  void Report(const std::string& name, const std::string& holder, std::string_view owner);

  CollisionLog log_;
  std::unordered_map<std::string, Holder> holders_;
  size_t bytes_ = 0;
};

}  // namespace tidegate::agent

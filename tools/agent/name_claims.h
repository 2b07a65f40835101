#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace tidegate::agent {

// Who holds which name on the page of metrics. Fitting names to the receiver's alphabet can make
// two of them one, and what they name must not be mixed: the first to claim a name keeps it until
// it has released it as often as it claimed it.
//
// Not thread-safe. Reports each pair that collides once, in one line; after a thousand pairs it
// reports no more of them.
class NameClaims {
 public:
  // Gets a line with the name, its holder and the one that came too late.
  using Reporter = std::function<void(const std::string&)>;

  explicit NameClaims(Reporter report) : report_(std::move(report)) {}

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

  const Reporter report_;
  std::unordered_map<std::string, Holder> holders_;
  size_t bytes_ = 0;
  std::unordered_set<size_t> reported_;  // hashes of lines
};

}  // namespace tidegate::agent

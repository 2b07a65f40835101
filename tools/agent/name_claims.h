#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "agent/shrink.h"

namespace tidegate::agent {

// Who holds which name on the page of metrics, or in a metric of it. Fitting names to the
// receiver's alphabet can make two of them one, and what they name must not be mixed: the first to
// claim a name keeps it until it has released it as often as it claimed it.
//
// Not thread-safe. Borrows `bytes`, and adds to it what the names take, roughly. An exception
// leaves everything as it was.
template <typename Owner>
class NameClaims {
 public:
  explicit NameClaims(size_t* bytes) : bytes_(bytes) {}

  // Null if the name is now claimed. If another owner holds it, that one, valid until the next
  // call. `owner_bytes` is what the owner has on the heap.
  const Owner* Claim(const std::string& name, const Owner& owner, size_t owner_bytes) {
    auto found = holders_.find(name);
    if (found == holders_.end()) {
      found = holders_.emplace(name, Holder{owner, owner_bytes, 0}).first;
      *bytes_ += BytesOf(*found);
    }
    Holder& holder = found->second;
    if (!(holder.owner == owner)) return &holder.owner;
    ++holder.claims;
    return nullptr;
  }

  // Allocates nothing. REQUIRES: a claim that is not yet released.
  void Release(const std::string& name) {
    const auto found = holders_.find(name);
    if (--found->second.claims > 0) return;
    *bytes_ -= BytesOf(*found);
    holders_.erase(found);
  }

  // As ShrinkBuckets does.
  void Shrink() { ShrinkBuckets(&holders_); }

 private:
  struct Holder {
    Owner owner;
    size_t owner_bytes;
    uint64_t claims;
  };
  using Holders = std::unordered_map<std::string, Holder>;

  static size_t BytesOf(const typename Holders::value_type& entry) {
    constexpr size_t kHeapAndTable = 64;
    return sizeof(entry) + entry.first.size() + entry.second.owner_bytes + kHeapAndTable;
  }

  Holders holders_;
  size_t* const bytes_;
};

}  // namespace tidegate::agent

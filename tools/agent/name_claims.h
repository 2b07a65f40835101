#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "agent/shrink.h"

namespace tidegate::agent {

// The owner of each name on the page of metrics, or in a metric of it. Two different names can
// become the same one when they are fitted to the receiver's alphabet, and their points must not be
// mixed. So the first owner that claims a name keeps it, until it has released the name as often as
// it has claimed it.
//
// Not thread-safe. Borrows `bytes`, and adds to it the memory of the names, roughly. An exception
// leaves everything as it was.
template <typename Owner>
class NameClaims {
 public:
  explicit NameClaims(size_t* bytes) : bytes_(bytes) {}

  // Null if the name is now claimed. If another owner has it, that one, valid until the next
  // call. `owner_bytes` is the owner's memory on the heap.
  const Owner* Claim(const std::string& name, const Owner& owner, size_t owner_bytes) {
    auto found = entries_.find(name);
    if (found == entries_.end()) {
      found = entries_.emplace(name, Entry{owner, owner_bytes, 0}).first;
      *bytes_ += BytesOf(*found);
    }
    Entry& claimed = found->second;
    if (!(claimed.owner == owner)) return &claimed.owner;
    ++claimed.claims;
    return nullptr;
  }

  // Allocates nothing. REQUIRES: a claim that is not yet released.
  void Release(const std::string& name) {
    const auto found = entries_.find(name);
    if (--found->second.claims > 0) return;
    *bytes_ -= BytesOf(*found);
    entries_.erase(found);
  }

  // As ShrinkBuckets does.
  void Shrink() { ShrinkBuckets(&entries_); }

 private:
  struct Entry {
    Owner owner;
    size_t owner_bytes;
    uint64_t claims;
  };
  using Entries = std::unordered_map<std::string, Entry>;

  static size_t BytesOf(const typename Entries::value_type& entry) {
    constexpr size_t kHeapAndTable = 64;
    return sizeof(entry) + entry.first.size() + entry.second.owner_bytes + kHeapAndTable;
  }

  Entries entries_;
  size_t* const bytes_;
};

}  // namespace tidegate::agent

#include "agent/name_claims.h"

#include <cstddef>

namespace tidegate::agent {
namespace {

// Of the table, the two texts and the heap.
constexpr size_t kHolderBytes = 128;

}  // namespace

bool NameClaims::Claim(const std::string& name, std::string_view owner) {
  const auto [found, added] = holders_.try_emplace(name, Holder{std::string(owner), 0});
  Holder& holder = found->second;
  if (added) bytes_ += BytesOf(name, holder);
  if (holder.owner != owner) {
    Report(name, holder.owner, owner);
    return false;
  }
  ++holder.claims;
  return true;
}

void NameClaims::Release(const std::string& name) {
  const auto found = holders_.find(name);
  if (--found->second.claims > 0) return;
  bytes_ -= BytesOf(name, found->second);
  holders_.erase(found);
}

size_t NameClaims::BytesOf(const std::string& name, const Holder& holder) {
  return name.size() + holder.owner.size() + kHolderBytes;
}

void NameClaims::Report(const std::string& name, const std::string& holder,
                        std::string_view owner) {
  if (log_.IsFull()) return;
  // Without one of its labels a series would be another one.
  const bool is_label = name.back() == '}';
  log_.Report("\"" + name + "\" stands for the " + holder + " in /metrics; " +
              (is_label ? "series with the " : "the ") + std::string(owner) +
              (is_label ? " are" : " is") + " left out there, rename it");
}

}  // namespace tidegate::agent

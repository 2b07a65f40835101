#include "agent/name_claims.h"

#include <cstddef>

namespace tidegate::agent {
namespace {

constexpr size_t kMaxReports = 1000;

}  // namespace

bool NameClaims::Claim(const std::string& name, std::string_view owner) {
  Holder& holder = holders_.try_emplace(name, Holder{std::string(owner), 0}).first->second;
  if (holder.owner != owner) {
    Report(name, holder.owner, owner);
    return false;
  }
  ++holder.claims;
  return true;
}

void NameClaims::Release(const std::string& name) {
  const auto found = holders_.find(name);
  if (--found->second.claims == 0) holders_.erase(found);
}

void NameClaims::Report(const std::string& name, const std::string& holder,
                        std::string_view owner) {
  if (reported_.size() >= kMaxReports) return;
  const std::string line = "\"" + name + "\" stands for the " + holder + " in /metrics; the " +
                           std::string(owner) + " is left out there, rename it";
  if (reported_.insert(std::hash<std::string>{}(line)).second) report_(line);
}

}  // namespace tidegate::agent

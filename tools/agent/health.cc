#include "agent/health.h"

#include <algorithm>

namespace tidegate::agent {
namespace {

// Offsets in the header.
constexpr size_t kMagicOffset = 0;
constexpr size_t kVersionOffset = 8;

}  // namespace

DecodeFailure FailureOf(const ReadError& error) {
  if (error.offset == kMagicOffset) return DecodeFailure::kForeign;
  return error.offset == kVersionOffset ? DecodeFailure::kVersion : DecodeFailure::kMalformed;
}

void Health::ForEach(const std::function<void(const Sample&)>& handle) const {
  const auto uptime =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_);
  handle({"tidegate_agent_info", "Always 1; the label is the version of the agent.", false,
          "version", TIDEGATE_VERSION, 1});
  handle({"tidegate_agent_uptime_seconds",
          "Whole seconds since the start.",
          false,
          {},
          {},
          static_cast<uint64_t>(uptime.count())});
  for (const Number* number = first(); number != nullptr; number = number->next()) {
    HandOut(*number, {}, handle);
  }
  for (size_t i = 0; i < lists_.size(); ++i) {
    const auto same = [&](const OwnedList& list) { return list.owner == lists_[i].owner; };
    if (std::none_of(lists_.begin(), lists_.begin() + static_cast<std::ptrdiff_t>(i), same)) {
      ForEachOwned(i, handle);
    }
  }
  const RuleCounts::Counts rules_now = rules.All();
  for (const auto& count : rules_now) {
    handle({"tidegate_agent_rule_matched_points_total", "Points that a rule has matched.", true,
            "rule", count->name, count->matched.load(std::memory_order_relaxed)});
  }
  for (const auto& count : rules_now) {
    handle({"tidegate_agent_rule_dropped_points_total", "Points that a rule has dropped.", true,
            "rule", count->name, count->dropped.load(std::memory_order_relaxed)});
  }
}

// Of all lists with the owner of that list: each number of all of them, then the next one.
void Health::ForEachOwned(size_t first, const std::function<void(const Sample&)>& handle) const {
  size_t size = 0;
  const auto at = [](const OwnedList& list, size_t index) {
    const Number* number = list.numbers->first();
    while (number != nullptr && index-- > 0) number = number->next();
    return number;
  };
  while (at(lists_[first], size) != nullptr) ++size;
  for (size_t begin = 0, end = 0; begin < size; begin = end) {
    const std::string_view name = at(lists_[first], begin)->name();
    while (end < size && at(lists_[first], end)->name() == name) ++end;
    for (const OwnedList& list : lists_) {
      if (list.owner != lists_[first].owner) continue;
      for (size_t i = begin; i < end; ++i) HandOut(*at(list, i), list, handle);
    }
  }
}

void Health::HandOut(const Number& number, const OwnedList& of,
                     const std::function<void(const Sample&)>& handle) const {
  handle({number.name(), number.help(), number.type() == Type::kCounter,
          number.reason().empty() ? "" : "reason", number.reason(),
          number.load(std::memory_order_relaxed), of.owner, of.value});
}

uint64_t Health::SumOfLists(std::string_view name) const {
  uint64_t sum = 0;
  for (const OwnedList& list : lists_) sum += list.numbers->Sum(name);
  return sum;
}

}  // namespace tidegate::agent

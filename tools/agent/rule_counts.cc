#include "agent/rule_counts.h"

#include <algorithm>

namespace tidegate::agent {

void RuleCounts::Set(Counts counts) {
  const METRICS::WriteGuard lock(mutex_);
  counts_.swap(counts);
}

RuleCounts::Counts RuleCounts::All() const {
  const METRICS::WriteGuard lock(mutex_);
  return counts_;
}

std::vector<RuleStatus> RuleCounts::Statuses() const {
  const auto now = std::chrono::steady_clock::now();
  std::vector<RuleStatus> statuses;
  for (const auto& count : All()) {
    const auto idle = std::max(now - count->news.load(), std::chrono::nanoseconds(0));
    statuses.push_back({count->name, count->action, count->matched, count->dropped,
                        std::chrono::duration_cast<std::chrono::seconds>(idle)});
  }
  return statuses;
}

}  // namespace tidegate::agent

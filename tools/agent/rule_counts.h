#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "util/metric_lock.h"

namespace tidegate::agent {

// What one rule has done, in points. Changed by the decoder's thread, read by any.
struct RuleCount {
  RuleCount(std::string its_name, std::string_view its_action)
      : name(std::move(its_name)), action(its_action) {}

  // With one thread that writes there is no need for an atomic addition.
  static void Add(std::atomic<uint64_t>* number, uint64_t points) {
    number->store(number->load(std::memory_order_relaxed) + points, std::memory_order_relaxed);
  }

  const std::string name;
  const std::string_view action;
  std::atomic<uint64_t> matched{0};
  std::atomic<uint64_t> dropped{0};
  // When it was last seen to match, or made.
  std::atomic<std::chrono::steady_clock::time_point> news{std::chrono::steady_clock::time_point()};
};

// A rule for people: its name and action, the points that it has matched and dropped, and since
// when it matches nothing.
struct RuleStatus {
  std::string name;
  std::string_view action;
  uint64_t matched;
  uint64_t dropped;
  std::chrono::seconds idle;
};

// The counts of all rules in force.
//
// Thread-safe. A count lives as long as somebody holds it.
class RuleCounts {
 public:
  using Counts = std::vector<std::shared_ptr<RuleCount>>;

  void Set(Counts counts);
  Counts All() const;

  // In the order of the rules.
  std::vector<RuleStatus> Statuses() const;

 private:
  mutable METRICS::Mutex mutex_;
  Counts counts_ METRICS_GUARDED_BY(mutex_);
};

}  // namespace tidegate::agent

#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/health.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// Which of the agent's numbers count a loss, since when they do, and what explains each.
//
// Threads: any. Bounded by the numbers that there are. Borrows `health`.
class DropWatch {
 public:
  struct Drop {
    Health::Sample sample;
    int64_t last_ms;        // since the epoch, when it grew last; of a second
    std::string_view help;  // one sentence
    std::string_view href;  // path and anchor in the documents
  };

  explicit DropWatch(const Health* health) : health_(health) {}

  // Looks which ones have grown. To be called every second or so.
  void Look(int64_t now_ms);

  // Those above 0.
  std::vector<Drop> All() const;

 private:
  struct Seen {
    uint64_t value = 0;
    int64_t last_ms = 0;
  };

  const Health* const health_;
  mutable METRICS::Mutex mutex_;
  std::map<std::string, Seen> seen_ METRICS_GUARDED_BY(mutex_);  // by name and labels
};

// Whether the number counts a loss.
bool IsDrop(const Health::Sample& sample);

}  // namespace tidegate::agent

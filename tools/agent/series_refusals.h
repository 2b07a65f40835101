#pragma once

#include <cstddef>

#include "agent/health.h"
#include "agent/recent_hashes.h"

namespace tidegate::agent {

// Counts the points that the table refuses, and their series, each of these once in a while.
//
// Not thread-safe. Borrows `health`.
class SeriesRefusals {
 public:
  explicit SeriesRefusals(Health* health) : health_(health) {}

  void CountPoints(Refusal reason, size_t count) {
    health_->refused_points[static_cast<size_t>(reason)] += count;
  }
  // A series that comes for the first time.
  void CountSeries(Refusal reason) { ++health_->refused_series[static_cast<size_t>(reason)]; }
  // One that may have come before.
  void CountSeriesOnce(Refusal reason, size_t series_hash) {
    if (recent_.Add(series_hash * 31 + static_cast<size_t>(reason))) CountSeries(reason);
  }

  // Begins a period, as RecentHashes has them.
  void Age() { recent_.Age(); }

 private:
  Health* const health_;
  RecentHashes recent_;
};

}  // namespace tidegate::agent

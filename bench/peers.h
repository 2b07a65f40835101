#pragma once

#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/labels.h>
#include <prometheus/registry.h>
#include <prometheus/summary.h>

#include <string>
#include <utility>
#include <vector>

#include "workload.h"

// The peer's side of the scenarios.

namespace tidegate::bench {

using PeerCounters = prometheus::Family<prometheus::Counter>;

inline prometheus::Labels LabelsOf(size_t series, size_t count, Length length = Length::kTen) {
  const std::vector<std::string> names = TagNames(count);
  std::vector<std::string> values = TagValues(series, count, length);
  prometheus::Labels labels;
  for (size_t i = 0; i < count; ++i) {
    labels.emplace(names[i], std::move(values[i]));
  }
  return labels;
}

// A family of `series` counters, each counted once.
inline PeerCounters& AddCounters(prometheus::Registry& registry, const std::string& name,
                                 size_t series, size_t tags, Length length = Length::kTen) {
  PeerCounters& family = prometheus::BuildCounter().Name(name).Help("requests").Register(registry);
  for (size_t i = 0; i < series; ++i) {
    family.Add(LabelsOf(i, tags, length)).Increment();
  }
  return family;
}

// The percentiles of the library's timers, with the aim of its estimating ones.
inline prometheus::Summary::Quantiles PeerQuantiles() {
  return {{0.5, 0.01}, {0.9, 0.01}, {0.95, 0.01}, {0.99, 0.01}, {0.999, 0.01}};
}

}  // namespace tidegate::bench

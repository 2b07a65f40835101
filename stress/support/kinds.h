#pragma once

#include <string>

#include "metrics/metric_client.h"
#include "support/agent_socket.h"

namespace tidegate::stress {

// A metric of each kind in one registry, emitted on together.
//
// Threads: `Emit` from any. Owns nothing: the metrics are the client's.
class AllKinds {
 public:
  // Finds or makes the registry and its metrics.
  AllKinds(METRICS::MetricClient& client, const std::string& tenant, const std::string& prefix);

  // Whether all of them could be made.
  bool made() const;
  // One emission on the series `series` of each kind, 1 of it on a delta counter. False if one
  // was refused.
  bool Emit(const std::string& series) const;

 private:
  METRICS::Metric* suffixed_ = nullptr;
  METRICS::Metric* estimated_ = nullptr;
  METRICS::Metric* row_ = nullptr;
  METRICS::Metric* compatible_ = nullptr;
};

// The emissions on all `AllKinds` of `tenant`, by the increases of their delta counters.
double EmissionsOf(const test::AgentSocket::Packets& packets, const std::string& tenant);

}  // namespace tidegate::stress

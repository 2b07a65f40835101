#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "agent/batch_queue.h"
#include "agent/credentials.h"
#include "agent/destination_kind.h"
#include "agent/forward_url.h"
#include "agent/spool.h"

namespace tidegate::agent {

// Where to, and how a destination knows the agent: what can change while the agent runs.
struct ForwardTarget {
  ForwardUrl url;
  Credentials credentials;
  std::chrono::milliseconds timeout{10000};  // of a request, from the name's look-up to the reply

  bool operator==(const ForwardTarget& other) const;
};

// A destination.
struct ForwardOptions {
  std::string name = "forward";  // of the destination, unlike that of any other
  DestinationKind kind = DestinationKind::kInflux;
  ForwardTarget target;
  BatchLimits limits;
  std::chrono::milliseconds first_pause{500};  // after a failure; doubled by each further one
  std::chrono::milliseconds longest_pause{30000};
  std::chrono::milliseconds setup_time{600000};  // of nothing but 401 and 404, before it drops
  std::chrono::milliseconds health_interval{10000};
  std::chrono::milliseconds log_interval{60000};  // between lines about the same trouble
  SpoolOptions spool;
  std::string host;                                           // tag of the agent's own numbers
  std::vector<std::pair<std::string, std::string>> resource;  // of OTLP: its attributes, by key
};

// Whether all is the same but what a ForwardTarget has.
bool IsSameBesideTarget(const ForwardOptions& one, const ForwardOptions& other);

}  // namespace tidegate::agent

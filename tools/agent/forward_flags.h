#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "agent/forwarder.h"

namespace CLI {
class App;
}

namespace tidegate::agent {

// The settings of forwarding, from the command line and the file. Times are seconds.
struct ForwardFlags {
  std::string url;  // empty: nothing is forwarded
  uint64_t batch_points = BatchLimits().batch_points;
  double interval = 1;
  uint64_t queue_points = BatchLimits().queue_points;
  size_t queue_bytes = BatchLimits().queue_bytes;
  double timeout = 10;
  bool spread = true;
  bool no_spread = false;
  double catch_up = 2;  // times the rate of points that come in; 0: no bound
  std::string spool;    // empty: there is none
  uint64_t spool_bytes = SpoolOptions().bytes;

  // Makes `app` fill this object, and refuse what cannot be meant.
  void DeclareOn(CLI::App* app);

  // REQUIRES: `url` is one that the flag takes.
  ForwardOptions ToOptions() const;
};

}  // namespace tidegate::agent

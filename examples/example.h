#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tidegate/metrics.h"

// The common beginning of the examples. A service of your own would write this out once, in its
// main.

namespace example {

/// For an agent at the path that the first argument names, or else at the default one, with a flush
/// every second, so that one has something to look at.
inline tidegate::Options OptionsOf(const char* service, int argc, char** argv) {
  tidegate::Options options{service};
  options.tenant = "examples";
  options.interval = std::chrono::seconds(1);
  if (argc > 1) options.socket_path = argv[1];
  return options;
}

/// Of the layer below: a registry of the same tenant and interval.
inline METRICS::MetricRegistryCfg Registry(const std::string& prefix) {
  METRICS::MetricRegistryCfg registry;
  registry.tenant = "examples";
  registry.prefix = prefix;
  registry.flush_interval = 1;
  return registry;
}

/// Ends the process with a message if `code` is no success: no example works without its metric.
inline void Require(METRICS::ReturnCode code) {
  if (code != METRICS::ReturnCode::kOk) {
    std::fprintf(stderr, "refused: %s\n", METRICS::MetricGetErrorCodeStr(code));
    std::exit(1);
  }
}

}  // namespace example

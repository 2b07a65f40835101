#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tidegate/metrics.h"

// The common beginning of the examples. A service of your own would write this out once, in its
// main.

namespace example {

/// The agent's socket: the first argument, or the library's default path.
inline tidegate::StaticVendor::Options MachineOf(int argc, char** argv) {
  tidegate::StaticVendor::Options machine;
  if (argc > 1) machine.socket_path = argv[1];
  return machine;
}

/// An agent that goes away must not end the service, and of the library's lines only errors count.
inline void SetUpProcess() {
  std::signal(SIGPIPE, SIG_IGN);
  METRICS::g_metricsLogLevel = 3;
}

/// Ends the process with a message if `code` is no success: no example works without its metric.
inline void Require(METRICS::ReturnCode code) {
  if (code != METRICS::ReturnCode::kOk) {
    std::fprintf(stderr, "refused: %s\n", METRICS::MetricGetErrorCodeStr(code));
    std::_Exit(1);  // a forked child must not run its parent's exit handlers
  }
}

/// Brings `client` into service for an agent at the path that the arguments name, with a flush
/// every second, so that one has something to look at.
inline void Start(METRICS::MetricClient& client, int argc, char** argv) {
  SetUpProcess();
  Require(client.Init(std::make_unique<tidegate::StaticConfiger>(1),
                      std::make_unique<tidegate::StaticVendor>(MachineOf(argc, argv))));
}

inline METRICS::MetricRegistryCfg Registry(const std::string& prefix) {
  METRICS::MetricRegistryCfg registry;
  registry.tenant = "examples";
  registry.prefix = prefix;
  registry.flush_interval = 1;
  return registry;
}

inline METRICS::Metric* MakeMetric(METRICS::MetricClient& client, const std::string& prefix,
                                   const METRICS::MetricInstanceCfg& definition) {
  const auto made = client.CreateMetric(Registry(prefix), definition);
  Require(made.code);
  return made.metric;
}

}  // namespace example

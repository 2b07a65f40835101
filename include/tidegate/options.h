#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tidegate/log.h"
#include "tidegate/metric_tag.h"
#include "tidegate/vendor_interface.h"

namespace tidegate {

/// The names of the tags that a metric declares; their values come with each emission.
using TagNames = std::vector<std::string>;

/// Who a service is and where its numbers go. A plain value; only `service` has to be set.
struct Options {
  std::string service;             ///< who it is; also the prefix of all names if `prefix` is empty
  std::string tenant = "default";  ///< owner of the data
  std::string prefix = {};         ///< first part of the names of all metrics
  std::chrono::seconds interval{10};  ///< from flush to flush: 1, 5, 10, 15, 30 or 60
  std::string socket_path = PlainVendor::kSocketPath;  ///< of the agent; at most 107 bytes
  std::vector<MetricTag> tags = {};                    ///< on all metrics; at most 255
  uint64_t max_series = 10000000;  ///< of all metrics together; beyond it new series are refused
  bool self_monitor = false;       ///< report the library's own metrics, too
  /// An agent that goes away raises SIGPIPE, which ends a process that has left it as it was. True
  /// ignores the signal then; false only prints a Warn line. A disposition of the service's own
  /// stays as it is.
  bool ignore_sigpipe = true;
  /// The library's log level from the construction on, for the whole process.
  LogLevel log_level = LogLevel::kError;
};

/// What else a metric can have.
struct MetricOptions {
  std::vector<MetricTag> tags = {};   ///< on all of its series
  uint64_t max_series = 0;            ///< of this metric alone; 0: no limit of its own
  bool estimate_percentiles = false;  ///< of a timer, instead of keeping each sample of an interval
};

}  // namespace tidegate

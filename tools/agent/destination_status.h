#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent/destination_numbers.h"

namespace tidegate::agent {

// The state of a destination at one moment, for pages. Times are milliseconds since 1970.
struct DestinationStatus {
  // The last answer that was no success, or the reason why there was none.
  struct Refusal {
    std::string text;  // one printable line, at most some hundred bytes
    int status = 0;    // of HTTP; 0: no reply
    int64_t at_ms = 0;
  };

  std::string name;
  std::string_view type;  // "influx", "remote-write" or "otlp"
  std::string url;        // without user, password and query
  bool up = true;         // whether the last request had an answer that settled it; true before one
  int64_t since_ms = 0;   // since when `up` is what it is
  uint64_t queue_points = 0;  // held ones included
  uint64_t queue_bytes = 0;
  uint64_t queue_limit_points = 0;
  uint64_t spool_points = 0;
  uint64_t spool_bytes = 0;
  uint64_t forwarded_points = 0;
  uint64_t retried_points = 0;
  uint64_t dropped[kForwardDrops] = {};  // by kForwardDropReasons
  std::optional<Refusal> last_refusal;
};

}  // namespace tidegate::agent

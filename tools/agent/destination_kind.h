#pragma once

#include <cstddef>
#include <string_view>

namespace tidegate::agent {

// The kinds of destinations, by what they take.
enum class DestinationKind { kInflux, kRemoteWrite, kOtlp };

struct DestinationFacts {
  std::string_view name;   // of the kind, in a section of the settings
  std::string_view flag;   // that makes one, without its dashes; the name of the destination, too
  std::string_view path;   // of a URL that has none
  std::string_view takes;  // for people
  std::string_view help;   // of the flag
};

constexpr DestinationFacts FactsOf(DestinationKind kind) {
  constexpr DestinationFacts kFacts[] = {
      {"influx", "forward", "/write", "InfluxDB lines, as /write or /api/v2/write",
       "Send all points to this URL as InfluxDB lines, as http://127.0.0.1:8428/write"},
      {"remote-write", "remote-write", "/api/v1/write",
       "Prometheus' remote write, as /api/v1/write",
       "Send all points to this URL by Prometheus' remote write, as "
       "http://127.0.0.1:9090/api/v1/write"},
      {"otlp", "otlp", "/v1/metrics", "OTLP metrics, as /v1/metrics",
       "Send all points to this URL by OTLP over HTTP, as http://127.0.0.1:4318/v1/metrics"},
  };
  return kFacts[static_cast<size_t>(kind)];
}

// Those that a setting can make.
inline constexpr DestinationKind kDestinationKinds[] = {
    DestinationKind::kInflux, DestinationKind::kRemoteWrite, DestinationKind::kOtlp};

}  // namespace tidegate::agent

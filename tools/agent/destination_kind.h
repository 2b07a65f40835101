#pragma once

#include <string_view>

namespace tidegate::agent {

// The kinds of destinations, by what they take.
enum class DestinationKind { kInflux, kRemoteWrite, kOtlp };

inline constexpr DestinationKind kDestinationKinds[] = {
    DestinationKind::kInflux, DestinationKind::kRemoteWrite, DestinationKind::kOtlp};

// As a section of the settings names it: "influx", "remote-write", "otlp".
constexpr std::string_view NameOf(DestinationKind kind) {
  constexpr std::string_view kNames[] = {"influx", "remote-write", "otlp"};
  return kNames[static_cast<size_t>(kind)];
}

// The flag that makes one, without its dashes; the name of the destination as well.
constexpr std::string_view FlagOf(DestinationKind kind) {
  return kind == DestinationKind::kInflux ? "forward" : NameOf(kind);
}

// The path of a URL that has none.
constexpr std::string_view DefaultPath(DestinationKind kind) {
  constexpr std::string_view kPaths[] = {"/write", "/api/v1/write", "/v1/metrics"};
  return kPaths[static_cast<size_t>(kind)];
}

}  // namespace tidegate::agent

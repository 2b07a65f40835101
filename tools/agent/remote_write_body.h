#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

// The body of a request of Prometheus remote write 1.0: a WriteRequest in the block format of
// snappy. Free functions without state, safe from any number of threads. They throw where there is
// no memory.

namespace tidegate::agent {

std::string PackRemoteWrite(std::string_view write_request);

// A packed body that is a part of another one.
struct RemoteWritePart {
  std::string body;
  uint64_t points = 0;  // TimeSeries, which have a sample each, without the agent's own numbers
};

// The body in two parts, in its order, each with half of the TimeSeries. Nothing if it has fewer
// than two, or is no such body.
std::optional<std::pair<RemoteWritePart, RemoteWritePart>> SplitRemoteWrite(std::string_view body);

// The name and the labels of the TimeSeries in a body, if it has one alone. Empty if not.
std::string OnlySeriesOf(std::string_view body);

}  // namespace tidegate::agent

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
  uint64_t samples = 0;  // TimeSeries, which have one each
};

// The body in two parts, in its order, each with half of the TimeSeries. Nothing if it has fewer
// than two, or is no such body.
std::optional<std::pair<RemoteWritePart, RemoteWritePart>> SplitRemoteWrite(
    const std::string& body);

// The name and the labels of the first TimeSeries in a body, for the log; empty if there is none.
std::string FirstSeriesOf(const std::string& body);

}  // namespace tidegate::agent

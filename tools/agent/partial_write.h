#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace tidegate::agent {

// How many lines InfluxDB 1 has dropped of those that it was sent, by the body of its answer with
// status 400; it keeps the others. Nothing if the body is not of one of these forms to its end:
//   {"error":"partial write: REASON dropped=N"}
//   {"error":"partial write: unable to parse 'LINE': REASON\nunable to parse ... dropped=0"}
// where the second one has the reason for each line that it drops.
std::optional<uint64_t> LinesDropped(std::string_view body);

}  // namespace tidegate::agent

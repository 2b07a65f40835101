#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/packet_reader.h"
#include "tidegate/testing.h"

namespace tidegate::test {

// Adds the points of `packet` in their order.
void AppendPoints(const agent::Packet& packet, std::vector<testing::Point>& points);

// As `Receiver::Values` and `Receiver::Value`.
std::vector<double> ValuesOf(const std::vector<testing::Point>& points, std::string_view name,
                             const testing::Tags& tags, std::string_view field);
std::optional<double> ValueOf(const std::vector<testing::Point>& points, std::string_view name,
                              const testing::Tags& tags, std::string_view field);

}  // namespace tidegate::test

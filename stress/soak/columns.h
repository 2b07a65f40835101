#pragma once

#include <cstddef>
#include <string>

#include "agent/packet_reader.h"
#include "soak/account.h"

namespace tidegate::stress {

// What one series record says.
struct Reading {
  std::string key;  // of the account
  Columns present;
  std::array<double, kColumns> values{};
};

// The key of a series: who reports it, the metric's full name, and the tags that tell it apart.
std::string SeriesKey(const std::string& tenant, const std::string& metric,
                      const std::string& generation, const std::string& worker);

// Reads a record of a metric that is named `registry.metric`, with the suffix or field names of
// `Channel`. Numbers that cannot be added up are left out, once `CheckGauge` has seen them.
Reading ReadSeries(const agent::Packet& packet, const agent::Block& block,
                   const agent::Series& series);

}  // namespace tidegate::stress

#pragma once

#include <array>
#include <string>

#include "agent/packet_reader.h"
#include "soak/account.h"

namespace tidegate::stress {

// The content of one series record.
struct Reading {
  std::string key;  // of the account
  Columns present;
  std::array<double, kColumns> values{};
};

// The key of a series: who reports it, the metric's full name, and the tags that tell it apart.
std::string SeriesKey(const std::string& tenant, const std::string& metric,
                      const std::string& generation, const std::string& worker);

// Reads a record of a metric with the full name `prefix.name`, without further dots, and the
// suffixes and fields that a `Channel` emits. Numbers that cannot be added up are left out.
Reading ReadSeries(const agent::Packet& packet, const agent::Block& block,
                   const agent::Series& series);

}  // namespace tidegate::stress

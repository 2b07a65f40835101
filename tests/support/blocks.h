#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "agent/packet_reader.h"

namespace tidegate::agent {

using Columns = std::vector<std::string>;

inline const Columns kTimer = {"min",   "max",   "avg",   "sum",   "counter",
                               "pct50", "pct90", "pct95", "pct99", "pct999"};

inline Block MakeBlock(uint8_t type, const std::string& name, const Columns& columns,
                       std::vector<Series> series, int64_t timestamp = 1700000000) {
  Block block;
  block.wire_type = type;
  block.timestamp = timestamp;
  block.name = name;
  for (const std::string& column : columns) block.fields.push_back({column, 0});
  block.series = std::move(series);
  return block;
}

inline Packet PacketWith(Block block) {
  Packet packet;
  packet.tenant = "t1";
  packet.blocks.push_back(std::move(block));
  return packet;
}

}  // namespace tidegate::agent

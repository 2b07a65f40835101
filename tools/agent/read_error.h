#pragma once

#include <cstddef>
#include <string>

namespace tidegate::agent {

// Why a packet was refused, and the offset of the first byte of the field at fault. The reason is
// one line of printable text and holds no bytes of the packet.
struct ReadError {
  size_t offset = 0;
  std::string reason;
};

}  // namespace tidegate::agent

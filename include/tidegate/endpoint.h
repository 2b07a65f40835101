#pragma once

#include <cstdint>
#include <string>

namespace tidegate {

/// A network address: `host` as text (IPv4, or IPv6 without brackets) and a port number.
struct Endpoint {
  std::string host;  ///< the address
  int32_t port = 0;  ///< the port
};

}  // namespace tidegate

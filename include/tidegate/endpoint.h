#pragma once

#include <cstdint>
#include <string>

namespace tidegate {

/// A network address: `host` as text (IPv4, or IPv6 without brackets) and a port number.
struct Endpoint {
  std::string host;
  int32_t port = 0;
};

}  // namespace tidegate

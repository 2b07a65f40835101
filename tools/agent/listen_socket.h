#pragma once

#include <cstddef>
#include <string>

#include "agent/unique_fd.h"

namespace tidegate::agent {

// Memory of the kernel for each connection, in its own count: what is sent and not taken, and what
// has come and was not read.
constexpr size_t kSendBuffer = 128 << 10;
constexpr size_t kReceiveBuffer = 32 << 10;

// Listens for TCP on a host, which may be a name, and a port; 0 is any free one. If `present`, a
// socket that listens already, is at one of the addresses that are meant, it takes that one. The
// socket and those accepted from it do not block. Sets `port` to the one that it is. If it fails,
// it returns none and says why in `error`.
UniqueFd ListenOn(const std::string& host, UniqueFd* present, int* port, std::string* error);

}  // namespace tidegate::agent

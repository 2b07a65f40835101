#pragma once

#include <sys/socket.h>

#include <optional>

namespace tidegate::agent {

// Who connected at the other end of a unix socket, by the word of the kernel. The process is 0 if
// it is in another PID namespace.
inline std::optional<ucred> PeerOf(int fd) {
  ucred peer = {};
  socklen_t size = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return std::nullopt;
  return peer;
}

}  // namespace tidegate::agent

#pragma once

#include <sys/un.h>

#include <string>

#include "agent/unique_fd.h"

namespace tidegate::agent {

// What is at the path of a SOCK_SEQPACKET unix socket. All of this is thread-safe.

enum class SocketFileState {
  kNone,
  kStale,  // the file of a process that is gone
  kTaken,  // a process listens there
  kOther,  // something that is no such socket, or that cannot be looked at
};

// A socket that does not block.
UniqueFd NewSeqpacketSocket();

// False with `error` if the path is too long, or empty.
bool MakeSocketAddress(const std::string& path, sockaddr_un* address, std::string* error);

// Looks at `path`, and changes nothing there. Where a process listens, `connection` is one to it,
// or none if its listen queue is full. `trouble` says why no socket can be made there, or with
// kStale which file is in the way.
SocketFileState LookAtSocketFile(const std::string& path, UniqueFd* connection,
                                 std::string* trouble);

}  // namespace tidegate::agent

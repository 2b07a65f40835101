#include "agent/socket_file.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "agent/packet_listener.h"

namespace tidegate::agent {
namespace {

std::string ErrnoText() { return std::generic_category().message(errno); }

// A file that another user has put there shall be found.
std::string Named(const std::string& path, const struct stat& info) {
  return info.st_uid == geteuid() ? path : path + " of user " + std::to_string(info.st_uid);
}

}  // namespace

UniqueFd NewSeqpacketSocket() {
  return UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

bool MakeSocketAddress(const std::string& path, sockaddr_un* address, std::string* error) {
  *error = PacketListener::CheckPath(path);
  if (!error->empty()) return false;
  *address = {};
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

SocketFileState LookAtSocketFile(const std::string& path, UniqueFd* connection,
                                 std::string* trouble) {
  sockaddr_un address;
  if (!MakeSocketAddress(path, &address, trouble)) return SocketFileState::kOther;
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) return SocketFileState::kNone;
    *trouble = "cannot look at " + path + ": " + ErrnoText();
    return SocketFileState::kOther;
  }
  if (!S_ISSOCK(info.st_mode)) {
    *trouble = Named(path, info) + " exists and is not a socket";
    return SocketFileState::kOther;
  }
  UniqueFd probe = NewSeqpacketSocket();
  const bool connected =
      connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  // EAGAIN is a full listen queue, EPROTOTYPE a bound socket of another kind.
  if (connected || errno == EAGAIN || errno == EPROTOTYPE) {
    if (connected) *connection = std::move(probe);
    *trouble = "another process is listening on " + Named(path, info);
    return SocketFileState::kTaken;
  }
  *trouble = Named(path, info);
  if (errno == ECONNREFUSED || errno == ENOENT) return SocketFileState::kStale;
  *trouble = "cannot tell whether " + *trouble + " is in use: " + ErrnoText();
  return SocketFileState::kOther;
}

}  // namespace tidegate::agent

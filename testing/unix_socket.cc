#include "testing/unix_socket.h"

#include <sys/un.h>

#include <cerrno>
#include <system_error>

namespace tidegate::test {

int CallWithPath(const std::function<int(int, const sockaddr*, socklen_t)>& call,
                 const agent::UniqueFd& socket, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return call(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

agent::UniqueFd Bind(const std::string& path, int type, int backlog) {
  agent::UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  if (CallWithPath(::bind, fd, path) != 0 || (backlog >= 0 && ::listen(fd.get(), backlog) != 0)) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return fd;
}

}  // namespace tidegate::test

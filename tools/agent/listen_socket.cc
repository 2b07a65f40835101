#include "agent/listen_socket.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

namespace tidegate::agent {
namespace {

constexpr int kBacklog = 128;
constexpr int kUnacknowledgedMillis = 60000;  // then the kernel gives a client up

void SetOption(const UniqueFd& fd, int level, int name, int value) {
  setsockopt(fd.get(), level, name, &value, sizeof(value));
}

// None on failure, which errno tells.
UniqueFd Listen(const addrinfo& address) {
  UniqueFd fd(socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return fd;
  SetOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);
  if (address.ai_family == AF_INET6) SetOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, 0);
  // Connections inherit these. The kernel doubles the sizes for what it spends itself.
  SetOption(fd, SOL_SOCKET, SO_SNDBUF, kSendBuffer / 2);
  SetOption(fd, SOL_SOCKET, SO_RCVBUF, kReceiveBuffer / 2);
  SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, kUnacknowledgedMillis);
  if (bind(fd.get(), address.ai_addr, address.ai_addrlen) != 0 || listen(fd.get(), kBacklog) != 0) {
    return UniqueFd();
  }
  return fd;
}

int PortOf(const UniqueFd& fd) {
  sockaddr_storage address = {};
  socklen_t size = sizeof(address);
  getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(address).sin6_port
                                             : reinterpret_cast<sockaddr_in&>(address).sin_port);
}

bool IsAt(const UniqueFd& fd, const addrinfo& address) {
  sockaddr_storage found = {};
  socklen_t size = sizeof(found);
  return getsockname(fd.get(), reinterpret_cast<sockaddr*>(&found), &size) == 0 &&
         size == address.ai_addrlen && std::memcmp(&found, address.ai_addr, size) == 0;
}

}  // namespace

UniqueFd ListenOn(const std::string& host, UniqueFd* present, int* port, std::string* error) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(*port).c_str(), &hints, &found) != 0) {
    *error = "no such host";
    return UniqueFd();
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
  int failure = 0;
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
    UniqueFd fd = IsAt(*present, *address) ? std::move(*present) : Listen(*address);
    if (fd.valid()) {
      *port = PortOf(fd);
      return fd;
    }
    failure = errno;
  }
  *error = std::generic_category().message(failure);
  return UniqueFd();
}

}  // namespace tidegate::agent

#include "odd_agents.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/un.h>

#include <cerrno>
#include <utility>

namespace tidegate::stress {

UniqueFd Bind(const std::string& path, int type, int backlog) {
  UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  if (backlog >= 0) {
    EXPECT_EQ(::listen(fd.get(), backlog), 0);
  }
  return fd;
}

void FillBacklog(const std::string& path, std::vector<UniqueFd>& held) {
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  int result = 0;
  while (result == 0) {
    held.emplace_back(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    result = ::connect(held.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
  }
  EXPECT_EQ(errno, EAGAIN);
}

HangingUpAgent::HangingUpAgent(const std::string& path)
    : listener_(Bind(path, SOCK_SEQPACKET, SOMAXCONN)), thread_([this] { Serve(); }) {}

void HangingUpAgent::Stop() {
  if (thread_.joinable()) {
    stop_.store(true);
    thread_.join();
  }
}

void HangingUpAgent::Serve() {
  std::vector<UniqueFd> clients;
  bool stopping = false;
  bool idle = false;
  while (!stopping || !idle) {
    stopping = stop_.load();  // ahead of the look that finds nothing more
    std::vector<pollfd> watched{{listener_.get(), POLLIN, 0}};
    for (const UniqueFd& client : clients) {
      watched.push_back({client.get(), POLLIN, 0});
    }
    idle = ::poll(watched.data(), watched.size(), 50) == 0;  // to see a stop
    for (size_t i = watched.size(); i-- > 1;) {
      if (watched[i].revents != 0) {
        HangUp(watched[i].fd);
        clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(i - 1));
      }
    }
    if (watched[0].revents != 0) {
      clients.emplace_back(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
  }
}

// Between the shutdown and the end of what was sent there is no moment in which a message is
// neither taken in nor refused.
void HangingUpAgent::HangUp(int client) {
  Keep(client);
  ::shutdown(client, SHUT_RD);
  while (Keep(client)) {
  }
  ++hang_ups_;
}

bool HangingUpAgent::Keep(int client) {
  std::string bytes(1 << 20, '\0');
  const ssize_t size = ::recv(client, bytes.data(), bytes.size(), 0);
  if (size <= 0) {
    return false;
  }
  test::ReceivedPacket received;
  agent::ReadError error;
  EXPECT_TRUE(agent::ReadPacket(bytes.data(), static_cast<size_t>(size), &received.packet, &error))
      << error.reason;
  packets_.push_back(std::move(received));
  return true;
}

}  // namespace tidegate::stress

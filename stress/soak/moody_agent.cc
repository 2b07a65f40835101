#include "soak/moody_agent.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <system_error>
#include <utility>

namespace tidegate::stress {
namespace {

constexpr size_t kMaxMessage = 1 << 20;

agent::UniqueFd Own(int fd, const char* what) {
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
  return agent::UniqueFd(fd);
}

agent::UniqueFd ListenOn(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  agent::UniqueFd listener =
      Own(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener.get(), SOMAXCONN) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return listener;
}

}  // namespace

MoodyAgent::MoodyAgent(std::string path, Ledger& ledger)
    : path_(std::move(path)),
      ledger_(ledger),
      wake_(Own(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
      listener_(ListenOn(path_)),
      buffer_(kMaxMessage),
      thread_(&MoodyAgent::Serve, this) {}

void MoodyAgent::Tell(Mood mood) {
  mood_.store(mood);
  ::eventfd_write(wake_.get(), 1);
}

void MoodyAgent::End(Mood mood) {
  if (!thread_.joinable()) {
    return;
  }
  Tell(mood);
  thread_.join();
  ledger_.AgentEnded(path_, mood == Mood::kDraining);
}

void MoodyAgent::Serve() {
  while (true) {
    switch (mood_.load()) {
      case Mood::kServing:
        ServeOnce();
        break;
      case Mood::kStalled: {
        pollfd watched{wake_.get(), POLLIN, 0};
        ::poll(&watched, 1, -1);
        break;
      }
      case Mood::kDraining:
        ReadToTheEnd();
        [[fallthrough]];
      case Mood::kKilled:
        listener_.Reset();
        clients_.clear();
        return;
    }
    eventfd_t ignored;
    ::eventfd_read(wake_.get(), &ignored);
  }
}

void MoodyAgent::ServeOnce() {
  std::vector<pollfd> watched{{wake_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
  for (const agent::UniqueFd& client : clients_) {
    watched.push_back({client.get(), POLLIN, 0});
  }
  if (::poll(watched.data(), watched.size(), -1) < 0) {
    return;
  }
  std::vector<agent::UniqueFd> open;
  for (size_t i = 0; i < clients_.size(); ++i) {
    if (watched[i + 2].revents == 0 || Receive(clients_[i].get(), MSG_DONTWAIT)) {
      open.push_back(std::move(clients_[i]));
    }
  }
  clients_ = std::move(open);
  Accept();
}

void MoodyAgent::Accept() {
  while (true) {
    agent::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.valid()) {
      return;
    }
    clients_.push_back(std::move(client));
  }
}

void MoodyAgent::ReadToTheEnd() {
  // Shut down ahead of reading: a message is then either among those to be read, or refused.
  ::shutdown(listener_.get(), SHUT_RD);
  Accept();
  for (const agent::UniqueFd& client : clients_) {
    ::shutdown(client.get(), SHUT_RD);
    while (Receive(client.get(), 0)) {
    }
  }
}

bool MoodyAgent::Receive(int client, int flags) {
  const ssize_t size = ::recv(client, buffer_.data(), buffer_.size(), flags | MSG_TRUNC);
  if (size <= 0) {
    return size < 0 && (errno == EAGAIN || errno == EINTR);
  }
  ledger_.Received(buffer_.data(), std::min(static_cast<size_t>(size), buffer_.size()));
  return true;
}

}  // namespace tidegate::stress

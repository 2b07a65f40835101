#include "support/agent_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace tidegate::test {

void AgentSocket::Restart() {
  sockaddr_un address{AF_UNIX, {}};
  path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
  listener_ = agent::UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 ||
      ::listen(listener_.get(), SOMAXCONN) < 0) {
    throw std::system_error(errno, std::generic_category(), path_);
  }
  stopping_ = false;
  thread_ = std::thread(&AgentSocket::Serve, this);
}

void AgentSocket::Stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  ::shutdown(listener_.get(), SHUT_RD);  // wakes the thread
  thread_.join();
  listener_.Reset();
  ::unlink(path_.c_str());
}

void AgentSocket::Serve() {
  std::vector<agent::UniqueFd> clients;
  for (bool last = false; !last;) {
    std::vector<pollfd> watched{{listener_.get(), POLLIN, 0}};
    for (const agent::UniqueFd& client : clients) watched.push_back({client.get(), POLLIN, 0});
    if (::poll(watched.data(), watched.size(), -1) < 0) continue;
    last = stopping_;
    while (true) {
      agent::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!client.valid()) break;
      clients.push_back(std::move(client));
    }
    // From the back, so that the places of the ones before stay. Shutting down before reading to
    // the end leaves no moment in which a message is neither taken in nor refused.
    for (size_t i = clients.size(); i-- > 0;) {
      if (last) ::shutdown(clients[i].get(), SHUT_RD);
      if (!Receive(clients[i].get())) {
        clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
  }
}

bool AgentSocket::Receive(int client) {
  while (true) {
    const ssize_t size = ::recv(client, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    if (size <= 0) return size < 0 && (errno == EAGAIN || errno == EINTR);
    std::string bytes(buffer_.data(), static_cast<size_t>(size));
    agent::Packet packet;
    agent::ReadError error;
    const bool read = agent::ReadPacket(bytes.data(), bytes.size(), &packet, &error);
    const std::lock_guard guard(mutex_);
    if (read) {
      packets_.push_back({std::move(bytes), std::move(packet)});
    } else {
      errors_.push_back(std::to_string(error.offset) + ": " + error.reason);
    }
    arrived_.notify_all();
  }
}

bool AgentSocket::WaitForPackets(size_t count, std::chrono::milliseconds timeout) {
  return WaitUntil([count](const Packets& packets) { return packets.size() >= count; }, timeout);
}

bool AgentSocket::WaitUntil(const std::function<bool(const Packets&)>& done,
                            std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return done(packets_); });
}

AgentSocket::Packets AgentSocket::Received() const {
  const std::lock_guard guard(mutex_);
  return packets_;
}

AgentSocket::Packets AgentSocket::Take() {
  const std::lock_guard guard(mutex_);
  return std::exchange(packets_, {});
}

std::vector<std::string> AgentSocket::Errors() const {
  const std::lock_guard guard(mutex_);
  return errors_;
}

std::vector<Point> AgentSocket::Points() const { return PointsOf(Received()); }

std::vector<Point> PointsOf(const AgentSocket::Packets& packets) {
  std::vector<Point> points;
  for (const auto& [bytes, packet] : packets) {
    for (const agent::Block& block : packet.blocks) {
      std::vector<std::string> fields;
      for (const agent::Field& field : block.fields) fields.push_back(field.name);
      for (const agent::Series& series : block.series) {
        points.push_back({packet.tenant, block.name, block.wire_type, block.timestamp, series.tags,
                          fields, series.indexes, series.values});
      }
    }
  }
  return points;
}

}  // namespace tidegate::test

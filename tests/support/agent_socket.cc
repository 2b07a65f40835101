#include "support/agent_socket.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace tidegate::test {
namespace {

constexpr size_t kMaxMessage = 1 << 20;

int Check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

}  // namespace

AgentSocket::AgentSocket(std::string path)
    : path_(std::move(path)),
      buffer_(kMaxMessage),
      stop_(Check(::eventfd(0, EFD_CLOEXEC), "eventfd")) {
  Listen();
}

void AgentSocket::Listen() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
  listener_ = agent::UniqueFd(
      Check(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket"));
  Check(::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
        "bind");
  Check(::listen(listener_.get(), SOMAXCONN), "listen");
  thread_ = std::thread(&AgentSocket::Serve, this);
}

void AgentSocket::Stop() {
  if (!thread_.joinable()) return;
  Check(::eventfd_write(stop_.get(), 1), "eventfd_write");
  thread_.join();
  ::unlink(path_.c_str());
}

void AgentSocket::Restart() {
  eventfd_t ignored;
  Check(::eventfd_read(stop_.get(), &ignored), "eventfd_read");
  Listen();
}

void AgentSocket::Serve() {
  while (true) {
    std::vector<pollfd> watched{{stop_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    for (const agent::UniqueFd& client : clients_) {
      watched.push_back({client.get(), POLLIN, 0});
    }
    if (::poll(watched.data(), watched.size(), -1) < 0) continue;
    if (watched[0].revents != 0) {
      Drain();
      return;
    }
    // From the back, so that the places of the ones before stay.
    for (size_t i = watched.size(); i-- > 2;) {
      if (watched[i].revents != 0 && !Receive(watched[i].fd, MSG_DONTWAIT)) {
        clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(i - 2));
      }
    }
    if (watched[1].revents != 0) Accept();
  }
}

void AgentSocket::Accept() {
  while (true) {
    agent::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.valid()) return;
    clients_.push_back(std::move(client));
  }
}

void AgentSocket::Drain() {
  // Shutting down before reading to the end leaves no moment in which a message is neither taken
  // in nor refused.
  ::shutdown(listener_.get(), SHUT_RD);
  Accept();
  for (const agent::UniqueFd& client : clients_) {
    ::shutdown(client.get(), SHUT_RD);
    while (Receive(client.get(), 0)) {
    }
  }
  clients_.clear();
  listener_.Reset();
}

bool AgentSocket::Receive(int client, int flags) {
  const ssize_t size = ::recv(client, buffer_.data(), buffer_.size(), flags | MSG_TRUNC);
  if (size <= 0) return size < 0 && (errno == EAGAIN || errno == EINTR);
  Keep(std::string(buffer_.data(), std::min(static_cast<size_t>(size), buffer_.size())));
  return true;
}

void AgentSocket::Keep(std::string bytes) {
  agent::Packet packet;
  agent::ReadError error;
  const bool read = agent::ReadPacket(bytes.data(), bytes.size(), &packet, &error);
  {
    const std::lock_guard guard(mutex_);
    if (read) {
      packets_.push_back({std::move(bytes), std::move(packet)});
    } else {
      errors_.push_back(std::to_string(bytes.size()) + " bytes, offset " +
                        std::to_string(error.offset) + ": " + error.reason);
    }
  }
  arrived_.notify_all();
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
  for (const ReceivedPacket& received : packets) {
    for (const agent::Block& block : received.packet.blocks) {
      std::vector<std::string> fields;
      for (const agent::Field& field : block.fields) fields.push_back(field.name);
      for (const agent::Series& series : block.series) {
        points.push_back({received.packet.tenant, block.name, block.wire_type, block.timestamp,
                          series.tags, fields, series.indexes, series.values});
      }
    }
  }
  return points;
}

}  // namespace tidegate::test

#include "packet_sink.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace tidegate::bench {
namespace {

void Require(bool ok, const char* what) {
  if (!ok) {
    std::perror(what);
    std::abort();
  }
}

}  // namespace

PacketSink::PacketSink() : folder_("/tmp/tgXXXXXX") {
  Require(::mkdtemp(folder_.data()) != nullptr, "mkdtemp");
  path_ = folder_ + "/s";
  listener_ = agent::UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{AF_UNIX, {}};
  path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
  Require(
      ::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
      "bind");
  Require(::listen(listener_.get(), 1) == 0, "listen");
  thread_ = std::thread(&PacketSink::Read, this);
}

PacketSink::~PacketSink() {
  // Wakes a thread to which nobody ever connected.
  ::shutdown(listener_.get(), SHUT_RDWR);
  WaitForEnd();
  ::unlink(path_.c_str());
  ::rmdir(folder_.c_str());
}

size_t PacketSink::WaitForEnd() {
  if (thread_.joinable()) {
    thread_.join();
  }
  return bytes_;
}

void PacketSink::Read() {
  const agent::UniqueFd connection(::accept(listener_.get(), nullptr, nullptr));
  std::vector<char> buffer(1 << 20);  // holds any packet
  ssize_t received = 0;
  while ((received = ::recv(connection.get(), buffer.data(), buffer.size(), 0)) > 0) {
    bytes_ += static_cast<size_t>(received);
  }
}

}  // namespace tidegate::bench

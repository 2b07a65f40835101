#include "agent/service_manager.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace tidegate::agent {
namespace {

constexpr int kFirstSocket = 3;  // as the protocol has it

// 0 if there is no such number.
int64_t NumberOf(const char* variable) {
  const char* const text = std::getenv(variable);
  int64_t number = 0;
  if (text != nullptr) std::from_chars(text, text + std::strlen(text), number);
  return number;
}

}  // namespace

ServiceManager::ServiceManager() {
  const char* const path = std::getenv("NOTIFY_SOCKET");
  const size_t size = path == nullptr ? 0 : std::strlen(path);
  if (size < 2 || size >= sizeof(address_.sun_path)) return;
  address_.sun_family = AF_UNIX;
  std::memcpy(address_.sun_path, path, size);
  if (path[0] == '@') address_.sun_path[0] = '\0';  // an abstract one
  address_size_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size);
  socket_ = UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const timeval patience = {kPatience.count(), 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  const int64_t watched = NumberOf("WATCHDOG_PID");
  has_watchdog_ = NumberOf("WATCHDOG_USEC") > 0 && (watched == 0 || watched == getpid());
}

bool ServiceManager::TakeSocket(UniqueFd* socket, std::string* error) {
  const int64_t count = NumberOf("LISTEN_PID") == getpid() ? NumberOf("LISTEN_FDS") : 0;
  if (count == 0) return true;
  if (count != 1 || fcntl(kFirstSocket, F_SETFD, FD_CLOEXEC) != 0) {
    *error = "LISTEN_FDS is " + std::to_string(count) + ", the agent takes one socket";
    return false;
  }
  *socket = UniqueFd(kFirstSocket);
  return true;
}

void ServiceManager::Tell(std::string_view state) const noexcept { Send(state, 0); }

void ServiceManager::TellReloading() const {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  Tell("RELOADING=1\nMONOTONIC_USEC=" +
       std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(now).count()));
}

void ServiceManager::KeepAlive() const noexcept {
  if (has_watchdog_) Send("WATCHDOG=1", MSG_DONTWAIT);
}

void ServiceManager::Send(std::string_view state, int flags) const noexcept {
  if (address_size_ == 0) return;
  sendto(socket_.get(), state.data(), state.size(), flags | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address_), address_size_);
}

}  // namespace tidegate::agent

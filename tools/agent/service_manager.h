#pragma once

#include <sys/un.h>

#include <chrono>
#include <string>
#include <string_view>

#include "agent/unique_fd.h"

namespace tidegate::agent {

// The service manager that started this process, as systemd does: the socket that it passes on, and
// what it wants to be told. Each of its variables in the environment may be missing; without any,
// there is none, and all calls do nothing.
//
// Threads: any. KeepAlive does not wait, the other calls not for longer than kPatience.
class ServiceManager {
 public:
  static constexpr std::chrono::seconds kPatience{1};

  ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  // The socket that it passes on (LISTEN_FDS), to be called once; none if it does not. Returns
  // false and says why in `error` if there is more than one.
  static bool TakeSocket(UniqueFd* socket, std::string* error);

  // Assignments as READY=1, one on a line (NOTIFY_SOCKET).
  void Tell(std::string_view state) const noexcept;

  // RELOADING=1 with the time that goes with it.
  void TellReloading() const;

  // That the agent works, if the manager wants to hear it (WATCHDOG_USEC): once a second, which is
  // enough for a watchdog of three seconds or more.
  void KeepAlive() const noexcept;

 private:
  void Send(std::string_view state, int flags) const noexcept;

  sockaddr_un address_ = {};
  socklen_t address_size_ = 0;  // 0: it wants to be told nothing
  UniqueFd socket_;
  bool has_watchdog_ = false;
};

}  // namespace tidegate::agent

#include "soak/socket_tap.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>

#include "soak/ledger.h"

namespace tidegate::stress {
namespace {

std::atomic<Ledger*> g_ledger{nullptr};

}  // namespace

void TapSockets(Ledger* ledger) { g_ledger.store(ledger); }

}  // namespace tidegate::stress

// NOLINTBEGIN(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name):
// the linker's names for what it wraps.
extern "C" {

int __real_connect(int socket, const sockaddr* address, socklen_t size);
ssize_t __real_sendto(int socket, const void* bytes, size_t size, int flags,
                      const sockaddr* address, socklen_t address_size);

int __wrap_connect(int socket, const sockaddr* address, socklen_t size) {
  const int result = __real_connect(socket, address, size);
  const int error = errno;
  tidegate::stress::Ledger* const ledger = tidegate::stress::g_ledger.load();
  if (ledger != nullptr && result == 0) {
    ledger->Connected(socket, reinterpret_cast<const sockaddr_un*>(address)->sun_path);
  } else if (ledger != nullptr) {
    ledger->NotConnected(socket);
  }
  errno = error;
  return result;
}

ssize_t __wrap_sendto(int socket, const void* bytes, size_t size, int flags,
                      const sockaddr* address, socklen_t address_size) {
  tidegate::stress::Ledger* const ledger = tidegate::stress::g_ledger.load();
  if (ledger == nullptr) {
    return __real_sendto(socket, bytes, size, flags, address, address_size);
  }
  ledger->Sending(socket, static_cast<const char*>(bytes), size);
  const ssize_t sent = __real_sendto(socket, bytes, size, flags, address, address_size);
  const int error = errno;
  ledger->Sent(sent == static_cast<ssize_t>(size));
  errno = error;
  return sent;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)

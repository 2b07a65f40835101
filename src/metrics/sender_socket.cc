#include "metrics/sender_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cassert>
#include <utility>

#include "util/metric_log.h"

namespace METRICS {

ReturnCode SenderSocket::OpenSocket(const std::string& tenant, const char* kind, int family,
                                    int type) {
  if (sock_ > 0) {
    METRICS_LOG_WARN("Sender[%s] %s reconnect, close old socket: %d\n", tenant.c_str(), kind,
                     sock_);
    CloseSocket();
  }
  sock_ = ::socket(family, type, 0);
  if (sock_ < 0) {
    METRICS_LOG_ERROR("Sender[%s] Create Socket Fd Fail.\n", tenant.c_str());
    return ReturnCode::kCreateSocketFailed;
  }
  ::fcntl(sock_, F_SETFD, FD_CLOEXEC);
  return ReturnCode::kOk;
}

void SenderSocket::SetTimeout(const std::string& tenant, int option) const {
  assert(option == SO_SNDTIMEO || option == SO_RCVTIMEO);
  constexpr timeval kTimeout{0, 100000};
  const int result = ::setsockopt(sock_, SOL_SOCKET, option, &kTimeout, sizeof(kTimeout));
  if (result < 0) {
    METRICS_LOG_ERROR("Sender[%s] Set Socket %s Timeout Fail with ret: %d\n", tenant.c_str(),
                      option == SO_SNDTIMEO ? "Send" : "Recv", result);
  }
}

void SenderSocket::CloseSocket() {
  if (sock_ >= 0) {
    // Forgotten before it is closed: a child forked in between must not close a number that the
    // application has been given meanwhile.
    ::close(std::exchange(sock_, -1));
  }
}

}  // namespace METRICS

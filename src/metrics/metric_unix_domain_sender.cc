#include "metrics/metric_unix_domain_sender.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "metrics/client_parts.h"
#include "metrics/metric_configer.h"
#include "util/metric_clock_util.h"
#include "util/metric_log.h"
#include "util/metric_size_limits.h"
#include "util/wall_clock.h"
#include "util/within_memory.h"

namespace METRICS {
namespace {

constexpr int kAttempts = 3;
constexpr int kPauseMillis = 10;

}  // namespace

MetricUnixDomainSender::MetricUnixDomainSender(const std::string& tenant, ClientParts* client)
    : MetricSender(tenant, client) {}

MetricUnixDomainSender::~MetricUnixDomainSender() { MetricSender::Exit(); }

ReturnCode MetricUnixDomainSender::Init() {
  IdentifyEncoder();
  const ReturnCode code = SocketInit();
  if (code != ReturnCode::kOk) {
    METRICS_LOG_CODE(code);
    return code;
  }
  // From the store on, the flush thread may reconnect.
  const std::string path = addr_.sun_path;
  InitStat();
  EnterService();
  METRICS_LOG_INFO("MetricUnixDomainSender ready with socket: %s\n", path.c_str());
  return ReturnCode::kOk;
}

ReturnCode MetricUnixDomainSender::SocketInit() {
  addr_ = {};
  const ReturnCode code = OpenSocket(tenant_, "UDS", AF_UNIX, SOCK_SEQPACKET);
  if (code == ReturnCode::kOk) {
    SetSendBuffer();
    SetTimeout(tenant_, SO_SNDTIMEO);
    ConnectToAgent();
  }
  return code;
}

void MetricUnixDomainSender::SetSendBuffer() const {
  const int buffer_size = kMetricSendBufSize;
  const int result = ::setsockopt(sock_, SOL_SOCKET, SO_SNDBUF, &buffer_size, sizeof(buffer_size));
  if (result != 0) {
    METRICS_LOG_ERROR("Sender[%s] Set Socket Send Buf Fail with ret: %d\n", tenant_.c_str(),
                      result);
  }
}

void MetricUnixDomainSender::ConnectToAgent() {
  addr_.sun_family = AF_UNIX;
  // Asked anew each time: the platform may move the agent. A longer path is cut.
  const std::string path = client_->configer_->vendor_->GetSenderOutPath();
  path.copy(addr_.sun_path, sizeof(addr_.sun_path) - 1);
  METRICS_LOG_INFO("Sender[%s] set socket path: %s\n", tenant_.c_str(), addr_.sun_path);
  if (::connect(sock_, reinterpret_cast<const sockaddr*>(&addr_), sizeof(addr_)) < 0) {
    METRICS_LOG_ERROR("Sender[%s] UDS connect to socket fail, errno: %s\n", tenant_.c_str(),
                      std::strerror(errno));
  }
}

bool MetricUnixDomainSender::TrySend(const char* buf, int len, int& error) const {
  const ssize_t sent = ::sendto(sock_, buf, static_cast<size_t>(len), 0,
                                reinterpret_cast<const sockaddr*>(&addr_), sizeof(addr_));
  // Saved before any line is printed: that may change it.
  error = errno;
  return static_cast<int>(sent) == len;
}

void MetricUnixDomainSender::Reconnect(int error) {
  METRICS_LOG_WARN("Sender[%s] Send fail with errno[%d]: %s, try to reconnect.\n", tenant_.c_str(),
                   error, std::strerror(error));
  CountFailure(error);
  SocketInit();
}

void MetricUnixDomainSender::SendToSocket(char* buf, int len) {
  const int64_t start = WallMicros();
  int error = 0;
  bool delivered = false;
  RunWithinMemory(tenant_.c_str(), "a packet", [&] { delivered = Deliver(buf, len, error); });
  AccountPacket(delivered, len, start, error);
}

bool MetricUnixDomainSender::Deliver(const char* buf, int len, int& error) {
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    if (TrySend(buf, len, error)) {
      if (attempt == 1) {
        METRICS_LOG_DEBUG("Send %d bytes in ts: %ld at attempt: %d\n", len, last_flush_ts_,
                          attempt);
      } else {
        METRICS_LOG_INFO("Sender[%s] Send %d bytes in ts: %ld  at attempt: %d\n", tenant_.c_str(),
                         len, last_flush_ts_, attempt);
      }
      return true;
    }
    if (attempt > 1) {
      SleepMillis(kPauseMillis);
    }
    if (attempt < kAttempts) {
      Reconnect(error);
    }
  }
  return false;
}

void MetricUnixDomainSender::AtFork() {
  ForgetParent();
  METRICS_LOG_WARN("MetricUnixDomainSender[%s] AtFork, interval: %d\n", tenant_.c_str(),
                   interval_.load());
}

}  // namespace METRICS

#pragma once

#include <sys/un.h>

#include <string>

#include "metrics/metric_sender.h"

namespace METRICS {

/// Delivers each packet as one message on a Unix domain SOCK_SEQPACKET socket.
///
/// A packet gets at most three tries, with a reconnect between them, and is dropped then: at most
/// three send time-outs of 100 ms and two pauses of 10 ms, plus the reconnects. A sender may be in
/// service while no agent listens; nothing but the next packet makes it reconnect.
/// A peer that went away can raise SIGPIPE in the process; the application decides what it does.
class MetricUnixDomainSender final : public MetricSender {
 public:
  MetricUnixDomainSender(const std::string& tenant, ClientParts* client);
  ~MetricUnixDomainSender() override;

  /// A missing connection is no failure.
  ReturnCode Init() override;
  void AtFork() override;
  void SendToSocket(char* buf, int len) override;
  /// Also connects to the vendor's path.
  ReturnCode SocketInit() override;

  sockaddr_un addr_{};  ///< rebuilt by every `SocketInit`

 private:
  void SetSendBuffer() const;
  void ConnectToAgent();
  /// Whether the whole packet was taken; `error` is the errno of the call.
  bool TrySend(const char* buf, int len, int& error) const;
  /// What a failed attempt that is followed by another one does.
  void Reconnect(int error);
  /// Up to three attempts, with a line for the one that delivered; `error` is that of the last.
  bool Deliver(const char* buf, int len, int& error);
};

}  // namespace METRICS

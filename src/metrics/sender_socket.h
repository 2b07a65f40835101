#pragma once

#include <cstdint>
#include <string>

#include "util/metric_error_code.h"

namespace METRICS {

/// The one socket of a sender.
///
/// Threads: the flush thread, and whoever flushes or closes after its end. The owner closes it.
/// `tenant` stands in the lines.
class SenderSocket {
 public:
  SenderSocket(const SenderSocket&) = delete;
  SenderSocket& operator=(const SenderSocket&) = delete;

  int32_t sock_ = -1;  ///< -1: none

 protected:
  SenderSocket() = default;
  ~SenderSocket() = default;

  /// Makes the socket anew. An old one is closed first, with a line that calls it a reconnect of
  /// `kind`. The new one is kept out of programs that the service executes. 66, with a line and no
  /// socket, when there is no descriptor to be had.
  ReturnCode OpenSocket(const std::string& tenant, const char* kind, int family, int type);
  /// Bounds each send (SO_SNDTIMEO) or receive (SO_RCVTIMEO) at 100 ms. A failure is a line.
  void SetTimeout(const std::string& tenant, int option) const;
  void CloseSocket();
};

}  // namespace METRICS

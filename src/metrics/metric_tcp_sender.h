#pragma once

#include <cstdint>
#include <string>

#include "metrics/metric_sender.h"
#include "tidegate/endpoint.h"
#include "tidegate/service_discovery_base.h"
#include "util/metric_producer_packet.h"

namespace METRICS {

/// Sends each packet, compressed, in an exchange of four steps over a TCP connection to an endpoint
/// that the discovery names: head out, reply in, body out, reply in.
///
/// As the exchange is defined, it never ends: a flush that has a packet to send does
/// not return, nothing is delivered, and whoever stops the sender waits. Only a sender without a
/// packet to send ends freely. Use the Unix domain socket.
class MetricTcpSender final : public MetricSender {
 public:
  /// The step of the exchange that comes next.
  enum class TcpState : uint8_t {
    kWriteHeader = 0,
    kReadHeaderReply = 1,
    kWriteBody = 2,
    kReadBodyReply = 3,
  };

  MetricTcpSender(const std::string& tenant, ClientParts* client);
  ~MetricTcpSender() override;

  /// A missing connection is no failure.
  ReturnCode Init() override;
  void AtFork() override;
  void SendToSocket(char* buf, int len) override;
  /// Makes the socket, which is of the IPv4 family and is never made again.
  ReturnCode SocketInit() override;

  /// Asks the discovery for an endpoint and connects the socket to it. Addresses only, no names.
  bool TryConnect();
  /// Reads a reply: its code, or 65535 when the read step fails. REQUIRES: `response` is not null.
  uint16_t ReadResponse(bool header_phase, MetricProducerPacket::Response* response);

  tidegate::ServiceDiscoveryBase* discovery_ = nullptr;  ///< not owned
  signed char retry_count_ = 0;  ///< failed steps, wrapping; the discovery may read and reset it
  tidegate::Endpoint endpoint_;  ///< in use
  TcpState tcp_state_ = TcpState::kWriteHeader;

 private:
  bool Connect(const tidegate::Endpoint& endpoint) const;
  /// One step of the exchange. True: the packet is delivered.
  bool Step(const MetricProducerPacket& packet);
  bool WroteLessThan(const std::string& bytes, const std::string& limit) const;
  void Advance(bool passed, TcpState next);
};

}  // namespace METRICS

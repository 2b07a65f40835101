#pragma once

#include <cstdint>
#include <string>

#include "tidegate/service_discovery_base.h"
#include "tidegate/vendor_interface.h"
#include "util/metric_export.h"

namespace METRICS {

/// Settings of a client, given to `MetricClient::Init`, which reads them and keeps no reference.
struct CoreInitCfg {
  /// Report the library's own metrics whatever `VendorInterface::EnableMonitor` says.
  bool force_self_monitor = false;
  /// Drop series that had no emission for more than 7200 seconds.
  bool enable_expire = true;
  /// Encode the tags of a series once, when it is made, instead of at every flush: faster
  /// flushes for some hundred bytes per series. Compatible metrics lose their series' tags by it.
  bool pre_encode_tags = false;
  /// Pause between two rounds of self monitoring, in milliseconds; without one at 0 and below.
  int32_t monitor_interval = 15000;
  /// Flush interval of the library's own metrics, in seconds.
  int32_t monitor_flush_interval = 60;
  /// Sets the pause between two passes over idle series, and nothing else: a tenth of this
  /// number, in milliseconds, from 11 on, and the number itself up to 10; none at 0 and below. The
  /// default looks about once a minute.
  int32_t expire_seconds = 600000;
  /// Quota of series over all metrics of the client. At the quota, known series go on and new
  /// ones get the dummy item.
  uint64_t max_total_series = 10000000;
};

/// The vendor of a plain machine with a local agent: no tags, no identity, and the agent's socket
/// at "/opt/tmp/sock/metric_seqpacket.sock".
class METRICS_API DummyVendor : public tidegate::PlainVendor {};

/// The discovery of a plain machine: the agent listens on 127.0.0.1 port 9867.
class METRICS_API DummyServiceDiscovery : public tidegate::ServiceDiscoveryBase {
 public:
  using ServiceDiscoveryBase::ServiceDiscoveryBase;

  bool LookUp(std::string /*service*/) override { return true; }
  bool GetOne(tidegate::Endpoint& endpoint, signed char& retry_count) override;
};

}  // namespace METRICS

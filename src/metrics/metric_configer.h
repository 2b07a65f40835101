#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "metrics/core_init_cfg.h"
#include "tidegate/mconfiger_impl_base.h"
#include "tidegate/service_discovery_base.h"
#include "tidegate/vendor_interface.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"

namespace METRICS {

struct ClientParts;

/// The resolved settings of a client and the environment objects, which it owns.
///
/// Written by `Init` before any thread that reads it starts; read without a lock afterwards, and
/// destroyed after all of those have been joined.
class MetricConfiger {
 public:
  explicit MetricConfiger(ClientParts* client);
  ~MetricConfiger();
  MetricConfiger(const MetricConfiger&) = delete;
  MetricConfiger& operator=(const MetricConfiger&) = delete;

  /// Takes the three objects over; null for `vendor` and `discovery` selects the dummies.
  /// REQUIRES: `impl` is not null. Always 0.
  ReturnCode Init(tidegate::MConfigerImplBase* impl, tidegate::VendorInterface* vendor,
                  tidegate::ServiceDiscoveryBase* discovery, const CoreInitCfg& cfg);
  /// Deletes the environment objects, after `MConfigerImplBase::Stop`.
  void Exit();

  MetricSenderType sender_type_ = MetricSenderType::kSenderUnixDomain;
  std::unique_ptr<tidegate::ServiceDiscoveryBase> discovery_;
  std::unique_ptr<tidegate::VendorInterface> vendor_;
  int32_t flush_interval_ = 30;  ///< seconds, for registries that name none
  bool enable_monitor_ = false;
  bool enable_expire_ = false;
  bool pre_encode_tags_ = false;
  int32_t monitor_interval_ = 15;
  int32_t monitor_flush_interval_ = 60;
  int32_t expire_seconds_ = 7200;
  ClientParts* client_;  ///< not owned
  std::unique_ptr<tidegate::MConfigerImplBase> impl_;
  std::string psm_;    ///< identity of the service
  std::string extra_;  ///< free for the application
};

}  // namespace METRICS

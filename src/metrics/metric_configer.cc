#include "metrics/metric_configer.h"

#include <cassert>

#include "util/metric_log.h"

namespace METRICS {

bool DummyServiceDiscovery::GetOne(tidegate::Endpoint& endpoint, signed char& retry_count) {
  endpoint.host = "127.0.0.1";
  endpoint.port = 9867;
  retry_count = 0;
  return true;
}

MetricConfiger::MetricConfiger(ClientParts* client) : client_(client) {}

MetricConfiger::~MetricConfiger() {
  Exit();
  client_ = nullptr;
  METRICS_LOG_DEBUG("MetricConfiger Destructor.\n");
}

ReturnCode MetricConfiger::Init(tidegate::MConfigerImplBase* impl,
                                tidegate::VendorInterface* vendor,
                                tidegate::ServiceDiscoveryBase* discovery, const CoreInitCfg& cfg) {
  assert(impl != nullptr);
  impl_.reset(impl);
  vendor_.reset(vendor);
  discovery_.reset(discovery);
  if (vendor_ == nullptr) {
    vendor_ = std::make_unique<DummyVendor>();
  }
  if (discovery_ == nullptr) {
    discovery_ = std::make_unique<DummyServiceDiscovery>("dummy.sink.name");
  }
  psm_ = vendor_->GetPSM();
  enable_monitor_ = cfg.force_self_monitor || vendor_->EnableMonitor();
  enable_expire_ = cfg.enable_expire;
  pre_encode_tags_ = cfg.pre_encode_tags;
  monitor_interval_ = cfg.monitor_interval;
  monitor_flush_interval_ = cfg.monitor_flush_interval;
  expire_seconds_ = cfg.expire_seconds;
  impl_->Start();
  return ReturnCode::kOk;
}

void MetricConfiger::Exit() {
  discovery_.reset();
  vendor_.reset();
  if (impl_ != nullptr) {
    impl_->Stop();
    impl_.reset();
  }
}

}  // namespace METRICS

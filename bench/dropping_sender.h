#pragma once

#include "metrics/metric_collector_factory.h"
#include "metrics/metric_encoder.h"
#include "metrics/metric_sender.h"
#include "scenarios.h"

namespace tidegate::bench {

constexpr char kTenant[] = "bench";  // of `Client`

inline METRICS::CollectorList CollectorsOf(Client& client) {
  return client->collector_factory_->GetTenantCollector(kTenant);
}

// Encodes for nobody: counts bytes and drops them. Its own thread never leaves the wait for `Init`,
// so flushes run on the caller's.
class DroppingSender final : public METRICS::MetricSender {
 public:
  explicit DroppingSender(Client& client) : MetricSender(kTenant, &*client) {
    encoder_->Init("account", "project", "");
  }
  ~DroppingSender() override { Exit(); }
  METRICS::ReturnCode Init() override { return METRICS::ReturnCode::kOk; }
  void AtFork() override {}
  void SendToSocket(char* /*buf*/, int len) override { bytes += static_cast<size_t>(len); }

  size_t bytes = 0;
};

// One flush on the calling thread, of the boundary after the one before.
inline void FlushOnce(METRICS::MetricSender& sender, const METRICS::CollectorList& collectors) {
  constexpr long kFirst = 1700000000;
  constexpr int kInterval = 30;
  sender.last_flush_ts_ = sender.last_flush_ts_ == 0 ? kFirst : sender.last_flush_ts_ + kInterval;
  sender.encoder_->PackCollector(collectors);
}

}  // namespace tidegate::bench

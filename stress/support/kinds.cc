#include "support/kinds.h"

#include <utility>
#include <vector>

#include "metrics/histo_util.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_expire_checker.h"

namespace tidegate::stress {

using METRICS::Add;
using METRICS::Incr;
using METRICS::IncrCounter;
using METRICS::IncrMeter;
using METRICS::MetricCoItemType;
using METRICS::MetricInstanceCfg;
using METRICS::MetricsType;
using METRICS::Observe;
using METRICS::ReturnCode;
using METRICS::Stat;
using METRICS::Store;
using METRICS::WithField;

AllKinds::AllKinds(METRICS::MetricClient& client, const std::string& tenant,
                   const std::string& prefix) {
  METRICS::MetricRegistryCfg cfg;
  cfg.tenant = tenant;
  cfg.prefix = prefix;
  cfg.flush_interval = 1;
  METRICS::HistoUtilBase bounds({0.0, 1.0, 10.0});
  suffixed_ = client.CreateMetric(cfg, {"suffixed", {"w"}, {}, {}, &bounds}).metric;
  estimated_ = client.CreateMetric(cfg, {"estimated", {"w"}, {}, {}}).metric;
  const std::vector<METRICS::MetricFieldCfg> fields = {{"rate", MetricsType::kRate},
                                                       {"timer", MetricsType::kTimer},
                                                       {"histo", MetricsType::kHistogram, &bounds},
                                                       {"delta", MetricsType::kDeltaCounter}};
  row_ = client.CreateMetric(cfg, {"row", {"w"}, {}, fields}).metric;
  METRICS::MetricRegistry* registry = nullptr;
  if (client.CreateRegistry(registry, cfg) == ReturnCode::kOk &&
      registry->GetMetric(compatible_, "compatible") != ReturnCode::kOk) {
    MetricInstanceCfg compatible;
    compatible.name = "compatible";
    registry->CreateMetric(compatible_, {MetricCoItemType::kCoItemCompatible, compatible});
  }
  if (made()) {
    estimated_->SetUseCkms(true);
    compatible_->SetCompatibleType(MetricsType::kTimer);
  }
}

bool AllKinds::made() const {
  return suffixed_ != nullptr && estimated_ != nullptr && row_ != nullptr && compatible_ != nullptr;
}

bool AllKinds::Emit(const std::string& series) const {
  const std::vector<MetricTag> tags = {{"w", series}};
  const ReturnCode codes[] = {
      suffixed_->WithTags(tags)->Emit(
          {Add(1), Incr(1), IncrCounter(1), IncrMeter(1), Observe(1), Stat(1), Store(1)}),
      estimated_->WithTags(tags)->Emit({Observe(1.5)}),
      row_->WithTags(tags)->Emit({WithField("rate", Incr(1)), WithField("timer", Observe(1)),
                                  WithField("histo", Stat(1)), WithField("delta", Add(1))}),
      compatible_->CEmit(1, {"w", series})};
  bool all = true;
  for (const ReturnCode code : codes) {
    all = all && code == ReturnCode::kOk;
  }
  return all;
}

double EmissionsOf(const test::AgentSocket::Packets& packets, const std::string& tenant) {
  double total = 0;
  for (const test::Point& point : test::PointsOf(packets)) {
    if (point.tenant == tenant &&
        point.fields == std::vector<std::string>{"counter", "rate", "delta"}) {
      total += point.values.at(2);
    }
  }
  return total;
}

}  // namespace tidegate::stress

#include "metrics/impl/metric_compatible_impl.h"

namespace METRICS {

const std::array<std::string, 10>& MetricCompatibleImpl::timer_field_info_ =
    *new std::array<std::string, 10>{"min",   "max",   "avg",   "sum",   "counter",
                                     "pct50", "pct90", "pct95", "pct99", "pct999"};

MetricCompatibleImpl::~MetricCompatibleImpl() = default;

ReturnCode MetricCompatibleImpl::CEmit(double value, std::vector<std::string>&& tag_pairs) {
  double sample = value;
  return WithCompatibleTags(tag_pairs)->Emit(sample);
}

}  // namespace METRICS

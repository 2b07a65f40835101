#include "metrics/impl/metric_compatible_impl.h"

#include "metrics/cell_kinds.h"

namespace METRICS {

const std::array<std::string, 10>& MetricCompatibleImpl::timer_field_info_ =
    NamesOf(MetricsType::kTimer);

MetricCompatibleImpl::~MetricCompatibleImpl() = default;

ReturnCode MetricCompatibleImpl::CEmit(double value, std::vector<std::string>&& tag_pairs) {
  double sample = value;
  return WithCompatibleTags(tag_pairs)->Emit(sample);
}

}  // namespace METRICS

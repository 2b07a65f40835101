#include "metrics/impl/metric_compatible_impl.h"

#include <algorithm>

#include "metrics/cell_kinds.h"

namespace METRICS {

namespace {

std::array<std::string, 10>& MakeTimerNames() {
  auto& names = *new std::array<std::string, 10>;
  std::copy_n(KindOf(MetricsType::kTimer).names, names.size(), names.begin());
  return names;
}

}  // namespace

const std::array<std::string, 10>& MetricCompatibleImpl::timer_field_info_ = MakeTimerNames();

MetricCompatibleImpl::~MetricCompatibleImpl() = default;

ReturnCode MetricCompatibleImpl::CEmit(double value, std::vector<std::string>&& tag_pairs) {
  double sample = value;
  return WithCompatibleTags(tag_pairs)->Emit(sample);
}

}  // namespace METRICS

#pragma once

#include <array>
#include <string>
#include <vector>

#include "metrics/impl/metric_impl.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"

namespace METRICS {

/// The implementation of compatible metrics: one number and its tag pairs at every emission.
class MetricCompatibleImpl final : public MetricImpl {
 public:
  using MetricImpl::MetricImpl;
  ~MetricCompatibleImpl() override;

  ReturnCode CEmit(double value, std::vector<std::string>&& tag_pairs) override;
  MetricCoItemType Type() override { return MetricCoItemType::kCoItemCompatible; }

  /// Names of the numbers of a timer, in the order of packets. Never destroyed.
  static const std::array<std::string, 10>& timer_field_info_;
};

}  // namespace METRICS

#include "util/metric_common.h"

namespace METRICS {

const char* CovMetricTypeToStr(const MetricsType& type) {
  switch (type) {
    case MetricsType::kGauge:
      return "gauge";
    case MetricsType::kRate:
      return "rate";
    case MetricsType::kCounter:
      return "counter";
    case MetricsType::kMeter:
      return "meter";
    case MetricsType::kTimer:
      return "timer";
    case MetricsType::kHistogram:
      return "histogram";
    case MetricsType::kMultiField:
      return "customized multi field";
    case MetricsType::kDeltaCounter:
      return "delta_counter";
    case MetricsType::kUnknown:
    case MetricsType::kTypeEnd:
      break;
  }
  return "unknown";
}

const char* StateText(MetricState state) {
  switch (state) {
    case MetricState::INIT:
      return "being made";
    case MetricState::READY:
      return "in service";
    case MetricState::BLOCKED:
      return "blocked";
    case MetricState::SHUTDOWN:
      return "shut down";
  }
  return "unknown";
}

}  // namespace METRICS

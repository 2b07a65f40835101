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

}  // namespace METRICS

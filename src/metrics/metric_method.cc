#include "metrics/metric_method.h"

#include <utility>

namespace METRICS {
namespace {

MetricFieldValue Named(const std::string& name, MetricFieldValue value) {
  value.name = name;
  return value;
}

MetricFieldValue Integer(const char* name, MetricsType type, int64_t number) {
  MetricFieldValue result{name, type, true, {}};
  result.value.integer = number;
  return result;
}

MetricFieldValue Real(const char* name, MetricsType type, double number) {
  MetricFieldValue result{name, type, false, {}};
  result.value.real = number;
  return result;
}

}  // namespace

MetricFieldValue WithSuffix(const std::string& name) { return Named(name, {}); }
MetricFieldValue WithField(const std::string& name) { return Named(name, {}); }

MetricFieldValue WithSuffix(const std::string& name, MetricFieldValue value) {
  return Named(name, std::move(value));
}
MetricFieldValue WithField(const std::string& name, MetricFieldValue value) {
  return Named(name, std::move(value));
}

// clang-format off
#define METRICS_DEFINE_VERB(Verb, text, type)                                           \
  MetricFieldValue Verb(int value) { return Integer(text, MetricsType::type, value); }  \
  MetricFieldValue Verb(long value) { return Integer(text, MetricsType::type, value); } \
  MetricFieldValue Verb(double value) { return Real(text, MetricsType::type, value); }
// clang-format on

METRICS_DEFINE_VERB(Incr, "rate", kRate)
METRICS_DEFINE_VERB(Observe, "timer", kTimer)
METRICS_DEFINE_VERB(Store, "store", kGauge)
METRICS_DEFINE_VERB(IncrMeter, "meter", kMeter)
METRICS_DEFINE_VERB(IncrCounter, "counter", kCounter)
METRICS_DEFINE_VERB(Stat, "histogram", kHistogram)
METRICS_DEFINE_VERB(Add, "delta_counter", kDeltaCounter)

#undef METRICS_DEFINE_VERB

}  // namespace METRICS

#pragma once

#include <cstdint>
#include <string>

#include "util/metric_common.h"
#include "util/metric_export.h"

namespace METRICS {

/// One number to emit: for which suffix or field, of which type, and the number itself.
///
/// A plain value. Integers and doubles stay apart: a cell keeps a sum of its own for each.
struct MetricFieldValue {
  std::string name;  ///< suffix or field; the empty suffix carries the metric's own name
  MetricsType type = MetricsType::kUnknown;
  bool is_integer = true;  ///< which member of `value` is meant
  union Number {
    int64_t integer;
    double real;
  } value = {0};
};

/// A value named `name` without a type; the caller sets `type` and `value`.
METRICS_API MetricFieldValue WithSuffix(const std::string& name);
METRICS_API MetricFieldValue WithField(const std::string& name);

/// `value` under the name `name` instead of its verb's: `WithSuffix("cpu", Observe(2.5))`.
METRICS_API MetricFieldValue WithSuffix(const std::string& name, MetricFieldValue value);
METRICS_API MetricFieldValue WithField(const std::string& name, MetricFieldValue value);

// The verbs. Each fixes a type and a default name; safe from any thread.

/// Adds to a per-second rate named "rate".
METRICS_API MetricFieldValue Incr(int value);
METRICS_API MetricFieldValue Incr(long value);
METRICS_API MetricFieldValue Incr(double value);
/// A sample, by convention in microseconds, of a summary named "timer".
METRICS_API MetricFieldValue Observe(int value);
METRICS_API MetricFieldValue Observe(long value);
METRICS_API MetricFieldValue Observe(double value);
/// Sets a gauge named "store"; the last value of an interval stands.
METRICS_API MetricFieldValue Store(int value);
METRICS_API MetricFieldValue Store(long value);
METRICS_API MetricFieldValue Store(double value);
/// Adds to a running total that is also reported per second, named "meter".
METRICS_API MetricFieldValue IncrMeter(int value);
METRICS_API MetricFieldValue IncrMeter(long value);
METRICS_API MetricFieldValue IncrMeter(double value);
/// Adds to a running total named "counter".
METRICS_API MetricFieldValue IncrCounter(int value);
METRICS_API MetricFieldValue IncrCounter(long value);
METRICS_API MetricFieldValue IncrCounter(double value);
/// A sample of a histogram named "histogram".
METRICS_API MetricFieldValue Stat(int value);
METRICS_API MetricFieldValue Stat(long value);
METRICS_API MetricFieldValue Stat(double value);
/// Adds to a running total that is also reported per second and as the interval's increase, named
/// "delta_counter".
METRICS_API MetricFieldValue Add(int value);
METRICS_API MetricFieldValue Add(long value);
METRICS_API MetricFieldValue Add(double value);

}  // namespace METRICS

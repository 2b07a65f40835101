#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

#include "util/metric_common.h"
#include "util/metric_export.h"

namespace METRICS {

/// One number to emit: for which suffix or field, of which type, and the number itself.
///
/// A plain value. Integers and doubles stay apart: a cell keeps a sum of its own for each.
struct MetricFieldValue {
  std::string name;  ///< suffix or field; the empty suffix carries the metric's own name
  MetricsType type = MetricsType::kUnknown;  ///< the kind of the cell that it goes to
  bool is_integer = true;                    ///< which member of `value` is meant
  /// An integer or a double.
  union Number {
    int64_t integer;  ///< if `is_integer`
    double real;      ///< else
  } value = {0};      ///< the number
};

/// A value named `name` without a type; the caller sets `type` and `value`. As it is, no cell takes
/// it. The two are the same. Allocates for a long name, as all of this header.
METRICS_API MetricFieldValue WithSuffix(const std::string& name);
METRICS_API MetricFieldValue WithField(const std::string& name);

/// `value` under the name `name` instead of its verb's: `WithSuffix("cpu", Observe(2.5))`. The two
/// are the same; names are checked by the emission.
METRICS_API MetricFieldValue WithSuffix(const std::string& name, MetricFieldValue value);
METRICS_API MetricFieldValue WithField(const std::string& name, MetricFieldValue value);

// What the verbs are made of.

/// Whether `number` goes in as an integer: an unsigned one above the signed range does not.
template <class Integer>
constexpr bool FitsInteger([[maybe_unused]] Integer number) {
  if constexpr (sizeof(Integer) > sizeof(int64_t)) {
    return number <= Integer(std::numeric_limits<int64_t>::max()) &&
           (number >= Integer(0) || number >= Integer(std::numeric_limits<int64_t>::min()));
  } else if constexpr (std::is_unsigned_v<Integer> && sizeof(Integer) == sizeof(int64_t)) {
    return number <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  }
  return true;
}

/// `time` in microseconds, fractions included.
template <class Rep, class Period>
constexpr double Microseconds(const std::chrono::duration<Rep, Period>& time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

/// Hands `number`, which is neither `int`, `long` nor `double`, to `verb` as a `long` if it is an
/// integer that fits, else as a `double`.
template <class Number, class Verb>
MetricFieldValue EmitAs(Number number, Verb verb) {
  if constexpr (std::is_integral_v<Number>) {
    if (FitsInteger(number)) {
      return verb(static_cast<long>(number));
    }
  }
  return verb(static_cast<double>(number));
}

/// The arithmetic types that the verbs have no form of their own for.
template <class Number>
using IfOtherNumber =
    std::enable_if_t<std::is_arithmetic_v<Number> && !std::is_same_v<Number, int> &&
                         !std::is_same_v<Number, long> && !std::is_same_v<Number, double>,
                     int>;

// The verbs. Each fixes a type and a default name; safe from any thread. They take every arithmetic
// type: integers up to 64 bits signed stay integers, everything else becomes a double. Nothing
// looks at the double: a NaN or an infinity stays in the sum of a counter, meter, delta counter or
// histogram, whose numbers are none from then on until the series is erased.

// clang-format off
#define METRICS_DECLARE_VERB(Verb)                                 \
  METRICS_API MetricFieldValue Verb(int value);                    \
  METRICS_API MetricFieldValue Verb(long value);                   \
  METRICS_API MetricFieldValue Verb(double value);                 \
  template <class Number, IfOtherNumber<Number> = 0>               \
  MetricFieldValue Verb(Number value) {                            \
    return EmitAs(value, [](auto number) { return Verb(number); }); \
  }
// clang-format on

/// Adds to a per-second rate named "rate". A NaN or an infinity ruins the interval.
METRICS_DECLARE_VERB(Incr)

/// A sample, by convention in microseconds, of a summary named "timer". A NaN ruins the sums of its
/// interval.
METRICS_DECLARE_VERB(Observe)

/// A time, as a sample in microseconds.
template <class Rep, class Period>
MetricFieldValue Observe(const std::chrono::duration<Rep, Period>& time) {
  return Observe(Microseconds(time));
}

/// Sets a gauge named "store"; the last value of an interval stands. A NaN is no value.
METRICS_DECLARE_VERB(Store)

/// Adds to a running total that is also reported per second, named "meter". A NaN or an infinity
/// ruins the series.
METRICS_DECLARE_VERB(IncrMeter)

/// Adds to a running total named "counter". A NaN or an infinity ruins the series.
METRICS_DECLARE_VERB(IncrCounter)

/// A sample of a histogram named "histogram". A NaN or an infinity ruins the sum of the series.
METRICS_DECLARE_VERB(Stat)

/// Adds to a running total that is also reported per second and as the interval's increase, named
/// "delta_counter". A NaN or an infinity ruins the series.
METRICS_DECLARE_VERB(Add)

#undef METRICS_DECLARE_VERB

}  // namespace METRICS

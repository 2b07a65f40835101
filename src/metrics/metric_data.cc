#include "metrics/metric_data.h"

#include <cmath>
#include <limits>

#include "util/line_allocator.h"

namespace METRICS {

const double MetricBasicData::d_nan_ = std::numeric_limits<double>::quiet_NaN();

namespace {

/// Made before the static objects of a service, which may already flush, and never destroyed: a
/// flush may still run while the process exits.
struct NoFlush {
  explicit NoFlush(uint32_t size) : result{false, {}, 0.0, size} {}
  NoFlush(const NoFlush&) = delete;
  NoFlush& operator=(const NoFlush&) = delete;
  ~NoFlush() {}
  union {
    SendRes result;
  };
};
__attribute__((init_priority(101))) const NoFlush g_no_number(1);
__attribute__((init_priority(101))) const NoFlush g_no_meter(kMetricMeterArraySize);
__attribute__((init_priority(101))) const NoFlush g_no_delta_counter(kMetricDeltaCounterArrSize);
__attribute__((init_priority(101))) const NoFlush g_no_summary(kMetricSummaryArraySize);

}  // namespace

const SendRes& SingleFieldMetricBasicData::no_flush_res_ = g_no_number.result;
const SendRes& MetricMeter::no_flush_res_ = g_no_meter.result;
const SendRes& MetricDeltaCounter::no_flush_res_ = g_no_delta_counter.result;
const SendRes& MetricSummaryData::no_flush_res_ = g_no_summary.result;

// An emission waits for one line of memory: a cell is made at the start of one, with the counts of
// its owners before it.
template <class Cell>
constexpr bool FitsIntoALine = 2 * sizeof(void*) + sizeof(Cell) <= kCacheLineBytes;
static_assert(FitsIntoALine<MetricGauge> && FitsIntoALine<MetricRate> &&
              FitsIntoALine<MetricCounter> && FitsIntoALine<MetricMeter> &&
              FitsIntoALine<MetricDeltaCounter>);
static_assert(std::atomic<double>::is_always_lock_free &&
              std::atomic<uint8_t>::is_always_lock_free);

void MetricBasicData::Emit(const long& /*value*/) {}
void MetricBasicData::Emit(const double& /*value*/) {}
SendRes MetricBasicData::Send(const unsigned int& /*interval*/) { return {false, {}, 0.0, 1}; }
MetricsType MetricBasicData::Type() { return MetricsType::kUnknown; }

void MetricGauge::Emit(const long& value) { Emit(static_cast<double>(value)); }

void MetricGauge::Emit(const double& value) { value_.store(value, std::memory_order_relaxed); }

SendRes MetricGauge::Send(const unsigned int& /*interval*/) {
  // Not an exchange: a value stored in between is lost, which a gauge may do.
  const double value = value_.load(std::memory_order_relaxed);
  value_.store(d_nan_, std::memory_order_relaxed);
  if (std::isnan(value)) {
    return no_flush_res_;
  }
  return {false, {value}, 0.0, 1};
}

SendRes MetricRate::Send(const unsigned int& interval) {
  const bool quiet = Quiet();
  const long integers = TakeIntegers();
  const double reals = TakeReals();
  if (quiet && integers == 0 && reals == 0.0) {
    return no_flush_res_;
  }
  CountFlush(quiet);
  return {false, {(static_cast<double>(integers) + reals) / interval}, 0.0, 1};
}

SendRes MetricCounter::Send(const unsigned int& /*interval*/) {
  Reading reading{};
  if (!Read(reading)) {
    return no_flush_res_;
  }
  return {reading.first, {reading.total}, reading.prev, 1};
}

SendRes MetricMeter::Send(const unsigned int& interval) {
  Reading reading{};
  if (!Read(reading)) {
    return no_flush_res_;
  }
  const double increase = reading.total - reading.prev;
  return {reading.first, {reading.total, increase / interval}, reading.prev, 1};
}

SendRes MetricDeltaCounter::Send(const unsigned int& interval) {
  Reading reading{};
  if (!Read(reading)) {
    return no_flush_res_;
  }
  const double increase = reading.total - reading.prev;
  return {reading.first, {reading.total, increase / interval, increase}, reading.prev, 1};
}

}  // namespace METRICS

#pragma once

#include <atomic>
#include <cmath>
#include <cstdint>
#include <vector>

#include "metrics/adding_sums.h"
#include "util/metric_common.h"

namespace METRICS {

// How many numbers the cells that report a row of them report.
constexpr uint32_t kMetricSummaryArraySize = 10;
constexpr uint32_t kMetricMeterArraySize = 2;
constexpr uint32_t kMetricDeltaCounterArrSize = 3;

/// What a cell reports of one flush interval.
struct SendRes {
  /// Also write a point for the previous interval, with `prev_value`.
  bool need_prev;
  /// This interval's numbers in the order of the cell's type; empty when there is nothing to say.
  std::vector<double> values;
  /// The total as it stood after the previous flush; only meaningful with `need_prev`.
  double prev_value;
  /// How many numbers the type occupies in a row; only read when `values` is empty.
  uint32_t field_width;
};

/// A cell: the aggregate of one suffix or field of one series. The base class itself is the no-op
/// cell, which swallows what it is given and never reports.
///
/// Threads: `Emit` from any thread, `Send` from one flushing thread at a time. Held by shared
/// pointer. Emission never fails; numbers go to a sum of integers and a sum of doubles that meet
/// only when the cell is drained, so integers stay exact up to 64 bits until then.
class MetricBasicData {
 public:
  virtual ~MetricBasicData() = default;

  virtual void Emit(const long& value);
  virtual void Emit(const double& value);
  /// Drains the cell for an interval of `interval` seconds.
  virtual SendRes Send(const unsigned int& interval);
  virtual MetricsType Type();

  /// A quiet NaN: the mark of a gauge without a value.
  static const double d_nan_;
};

/// Level of the cells that report a single number.
class SingleFieldMetricBasicData : public MetricBasicData {
 public:
  /// What a quiet interval reports.
  static const SendRes& no_flush_res_;
};

/// The last value of the interval; an interval without one is quiet. NaN is no value.
class MetricGauge final : public SingleFieldMetricBasicData {
 public:
  void Emit(const long& value) override;
  void Emit(const double& value) override;
  SendRes Send(const unsigned int& interval) override;
  MetricsType Type() override { return MetricsType::kGauge; }

 private:
  std::atomic<double> value_{d_nan_};
};

/// The part that all adding cells share. Emitting takes no lock and allocates nothing.
///
/// An emission beside a flush may find that the cell was not silent yet, while the flush counts
/// another interval without one: the series trails one flush less then. Nothing is lost by it.
template <class Base>
class AddingCell : public Base, public AddingSums {
 public:
  void Emit(const long& value) override { AddingSums::Emit(value); }
  void Emit(const double& value) override { AddingSums::Emit(value); }
};

/// Sum of the interval per second.
class MetricRate final : public AddingCell<SingleFieldMetricBasicData> {
 public:
  SendRes Send(const unsigned int& interval) override;
  MetricsType Type() override { return MetricsType::kRate; }
};

/// The part that the three cells with a running total share. The sums are never reduced;
/// `Total` is the type that keeps the total of the previous flush.
template <class Base, class Total>
class TotalCell : public AddingCell<Base> {
 protected:
  /// What a reporting flush found.
  struct Reading {
    bool first;  ///< the first report of the series, or the first after a silence
    double total;
    double prev;
  };

  /// False in a quiet interval, which arms `need_prev_` for the next report.
  bool Read(Reading& reading) {
    const bool quiet = this->Quiet();
    reading.total = static_cast<double>(this->Integers()) + this->Reals();
    reading.prev = last_total_;
    if (quiet && SameNumber(reading.total, reading.prev)) {
      need_prev_.exchange(true);
      return false;
    }
    reading.first = need_prev_.load();
    if (reading.first) {
      need_prev_.store(false, std::memory_order_relaxed);
    }
    last_total_ = reading.total;
    this->CountFlush(quiet);
    return true;
  }

 private:
  /// Of totals, of which a NaN is the same as another.
  static bool SameNumber(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

  std::atomic<bool> need_prev_{true};
  Total last_total_{0.0};
};

/// Running total.
class MetricCounter final : public TotalCell<SingleFieldMetricBasicData, double> {
 public:
  SendRes Send(const unsigned int& interval) override;
  MetricsType Type() override { return MetricsType::kCounter; }
};

/// Running total, and its increase per second.
class MetricMeter final : public TotalCell<MetricBasicData, double> {
 public:
  SendRes Send(const unsigned int& interval) override;
  MetricsType Type() override { return MetricsType::kMeter; }

  static const SendRes& no_flush_res_;
};

/// Running total, its increase per second, and its increase.
class MetricDeltaCounter final : public TotalCell<MetricBasicData, std::atomic<double>> {
 public:
  SendRes Send(const unsigned int& interval) override;
  MetricsType Type() override { return MetricsType::kDeltaCounter; }

  static const SendRes& no_flush_res_;
};

/// The sums of `cell`, which has the type `type`; null for a cell of another kind. All adding kinds
/// take a number in the same way, so a caller that knows the type needs no virtual call.
inline AddingSums* SumsOf(MetricBasicData& cell, MetricsType type) {
  switch (type) {
    case MetricsType::kRate:
      return &static_cast<MetricRate&>(cell);
    case MetricsType::kCounter:
      return &static_cast<MetricCounter&>(cell);
    case MetricsType::kMeter:
      return &static_cast<MetricMeter&>(cell);
    case MetricsType::kDeltaCounter:
      return &static_cast<MetricDeltaCounter&>(cell);
    case MetricsType::kUnknown:
    case MetricsType::kGauge:
    case MetricsType::kTimer:
    case MetricsType::kHistogram:
    case MetricsType::kMultiField:
    case MetricsType::kTypeEnd:
      break;
  }
  return nullptr;
}

/// Base of the cells that tell the distribution of an interval's samples by the ten numbers of
/// `SummarizeSamples`. Samples are never filtered: NaN and infinity count and go through the sum.
class MetricSummaryData : public MetricBasicData {
 public:
  MetricsType Type() override { return MetricsType::kTimer; }

  /// What a quiet interval reports.
  static const SendRes& no_flush_res_;
};

}  // namespace METRICS

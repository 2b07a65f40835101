#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "util/metric_common.h"
#include "util/metric_data_util.h"

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

/// Flushes that a cell goes on reporting after the last emission, its own interval included.
constexpr uint8_t kQuietAfterFlushes = 3;

/// The accumulators that all adding cells share. Emitting is one locked add (a compare-exchange
/// for doubles) and one byte store, without a lock or an allocation.
///
/// An emission that clears `idle_flushes_` between a flush's test and its increment makes the
/// series trail one flush less; nothing is lost by it.
template <class Base>
class AddingCell : public Base {
 public:
  void Emit(const long& value) override {
    long_sum_.fetch_add(value, std::memory_order_relaxed);
    idle_flushes_.store(0, std::memory_order_release);
  }
  void Emit(const double& value) override {
    FetchAddD(double_sum_, value);
    idle_flushes_.store(0, std::memory_order_release);
  }

 protected:
  bool Quiet() const { return idle_flushes_.load() >= kQuietAfterFlushes; }

  std::atomic<long> long_sum_{0};
  std::atomic<double> double_sum_{0.0};
  /// Flushes since the last emission; starts quiet.
  std::atomic<uint8_t> idle_flushes_{kQuietAfterFlushes};
};

/// Sum of the interval per second.
class MetricRate final : public AddingCell<SingleFieldMetricBasicData> {
 public:
  SendRes Send(const unsigned int& interval) override;
  MetricsType Type() override { return MetricsType::kRate; }
};

/// The part that the three cells with a running total share. The accumulators are never reduced;
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
    if (this->Quiet()) {
      need_prev_.exchange(true);
      return false;
    }
    reading.first = need_prev_.load();
    if (reading.first) {
      need_prev_.store(false, std::memory_order_relaxed);
    }
    reading.total = static_cast<double>(this->long_sum_.load()) + this->double_sum_.load();
    reading.prev = last_total_;
    last_total_ = reading.total;
    this->idle_flushes_.fetch_add(1);
    return true;
  }

 private:
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

/// Base of the cells that tell the distribution of an interval's samples by the ten numbers of
/// `SummarizeSamples`. Samples are never filtered: NaN and infinity count and go through the sum.
class MetricSummaryData : public MetricBasicData {
 public:
  MetricsType Type() override { return MetricsType::kTimer; }

  /// What a quiet interval reports.
  static const SendRes& no_flush_res_;
};

}  // namespace METRICS

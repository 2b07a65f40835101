#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "metrics/metric_method.h"
#include "tidegate/metric_tag.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

class AddingSums;
class EventCounter;
class Metric;
class MetricBasicData;
class MetricCollectorItem;

/// A handle on one cell of one series, for emissions without any look-up:
///
///     BoundSeries requests;
///     requests.Bind(metric, {{"method", "get"}}, Incr(0));  // once
///     requests.Emit(1);                                     // from then on
///
/// An emission does what `Emit` of one value on the series' item does: to the cell, the metric's
/// success counter, the series' last update time and its place in flushes. It takes no lock but the
/// cell's own, which timers and histograms have.
///
/// Threads: `Emit` from any thread, on one handle or on copies. `Bind` and assignment not at the
/// same time as anything else on this handle. Ownership: copies share what they are bound to. It
/// stays in memory, the metric included, until the last of them goes. Expiry: a bound series is
/// never erased. When idle it is hidden, and its next emission brings it back; it counts in the
/// quota for as long as the handle lives. Removal: once its registry is blocked, `Emit` answers 22
/// and keeps nothing; the first emission after `UnBlock` binds the handle and its copies anew.
/// Each one after that takes a lock that they share, for some 30 ns, until you `Bind` again. After
/// its registry was cleared or its metric or registry removed, and once the client has ended,
/// `Emit` always answers 23. All of these count in the metric's `emit_fail_`. Fork: a
/// child may not emit on a handle of its parent; it may drop it or bind it anew, after `Init`. What
/// the handle was bound to is leaked there.
class METRICS_API BoundSeries {
 public:
  using Tags = std::vector<tidegate::MetricTag>;  ///< in any order

  /// Bound to nothing: an emission does nothing and answers 70.
  BoundSeries() = default;
  BoundSeries(const BoundSeries&) = default;             ///< shares what it is bound to
  BoundSeries& operator=(const BoundSeries&) = default;  ///< the same
  /// What is moved from is bound to nothing.
  BoundSeries(BoundSeries&& other) noexcept { Swap(other); }
  /// The same.
  BoundSeries& operator=(BoundSeries&& other) noexcept {
    BoundSeries moved(std::move(other));
    Swap(moved);
    return *this;
  }

  /// Binds to the suffix or field `name` of the series of `tags`, which are made if they are new.
  /// Any other result than 0 leaves the handle bound to nothing, and nothing made: 81 without a
  /// metric; 52 for a type that is none, or that of the suffix or field is another; 37, 53 or 50
  /// for tags that `Metric::WithTags` would refuse; 22 and 23 for a blocked or removed metric; 70
  /// for a compatible metric, at the quota of series and wherever else `WithTags` gives the item of
  /// failures; 53 for an illegal suffix, 20 for a field that was not declared; 36, with a Warn
  /// line, for a histogram without bounds, which would drop every sample. Beyond the metric's own
  /// limit (`MetricInstanceCfg::max_series`) it binds to the overflow series, and stays there.
  ReturnCode Bind(Metric* metric, const Tags& tags, const std::string& name, MetricsType type);
  /// The same, with the name and type of `like`, whose number does not count:
  /// `Bind(metric, tags, WithSuffix("bytes", IncrCounter(0)))`.
  ReturnCode Bind(Metric* metric, const Tags& tags, const MetricFieldValue& like) {
    return Bind(metric, tags, like.name, like.type);
  }

  /// Emits one number. 0; 70 when bound to nothing; 22 and 23 where the series was dropped (see
  /// above), or what `Bind` answers if it cannot be bound anew. Integers go in as integers up to 64
  /// bits signed, everything else as a double.
  template <class Number, std::enable_if_t<std::is_arithmetic_v<Number>, int> = 0>
  ReturnCode Emit(Number number) {
    if constexpr (std::is_integral_v<Number>) {
      if (FitsInteger(number)) {
        return EmitInteger(static_cast<int64_t>(number));
      }
    }
    return EmitReal(static_cast<double>(number));
  }
  /// Emits a time in microseconds.
  template <class Rep, class Period>
  ReturnCode Emit(const std::chrono::duration<Rep, Period>& time) {
    return EmitReal(Microseconds(time));
  }

  /// Whether it is bound; what has become of the series since then does not count.
  explicit operator bool() const { return cell_ != nullptr; }
  /// Of the cell; `kUnknown` when bound to nothing.
  MetricsType Type() const { return type_; }

 private:
  struct Pins;

  ReturnCode EmitInteger(int64_t number);
  ReturnCode EmitReal(double number);
  template <class Number>
  __attribute__((visibility("hidden"))) ReturnCode EmitNumber(Number number);
  template <class Number>
  __attribute__((visibility("hidden"), cold, noinline)) ReturnCode EmitHidden(Number number);
  template <class Number>
  __attribute__((visibility("hidden"), always_inline)) inline ReturnCode EmitShown(Number number);
  __attribute__((visibility("hidden"), always_inline)) inline void CountEmission();
  void Swap(BoundSeries& other) noexcept {
    std::swap(cell_, other.cell_);
    std::swap(sums_, other.sums_);
    std::swap(item_, other.item_);
    std::swap(success_, other.success_);
    std::swap(bounds_, other.bounds_);
    std::swap(type_, other.type_);
    pins_.swap(other.pins_);
  }
  __attribute__((visibility("hidden"))) ReturnCode BindTags(Metric& metric, const Tags& tags,
                                                            const std::string& name,
                                                            MetricsType type);
  __attribute__((visibility("hidden"))) ReturnCode BindValues(Metric& metric,
                                                              std::vector<std::string> values,
                                                              const std::string& name,
                                                              MetricsType type);

  // What an emission reads, kept alive by `pins_`.
  MetricBasicData* cell_ = nullptr;
  AddingSums* sums_ = nullptr;  ///< of the cell, if it is of an adding kind
  MetricCollectorItem* item_ = nullptr;
  EventCounter* success_ = nullptr;
  const std::vector<double>* bounds_ = nullptr;  ///< of a histogram
  MetricsType type_ = MetricsType::kUnknown;
  std::shared_ptr<Pins> pins_;
};

}  // namespace METRICS

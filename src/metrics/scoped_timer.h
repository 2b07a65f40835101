#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "metrics/bound_series.h"
#include "metrics/metric.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "tidegate/metric_tag.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

/// Measures the time from its construction to the end of its scope, on the steady clock, and
/// observes it as one timer sample in microseconds:
///
///     ScopedTimer timer(latency);              // a Metric*, an item or a BoundSeries
///     const Reply reply = Serve(request);
///     timer.WithTags({{"status", reply.code}});  // once they are known
///
/// A timer of a metric that was never told its tags observes on the series of all tags missing.
/// The series is looked up, and made, when the timer observes, so expiry cannot take it away
/// meanwhile, and a cancelled timer makes none. Observes once: at `Stop` or at the end, unless
/// `Cancel` came first. Threads: one at a time. Ownership: of a metric and of a `BoundSeries` it
/// keeps the address, and they must outlive it; an item it shares, and holds for expiry to leave
/// alone. Moving hands the measurement on.
/// Memory: `WithTags` keeps the list that it is given, and allocates only to copy one that was not
/// moved; the look-up allocates for a new series, as `Metric::WithTags` does; on a `BoundSeries`
/// nothing is looked up or allocated. Where memory ends the sample is lost, with code 83, but the
/// cell of an exact timer that cannot grow ends the process, as in every `Emit`.
class [[nodiscard]] ScopedTimer {
 public:
  using Clock = std::chrono::steady_clock;               ///< what it measures by
  using ItemPtr = std::shared_ptr<MetricCollectorItem>;  ///< what `Metric::WithTags` answers

  /// `name` is the suffix or field of the sample. Null measures, and observes nothing.
  [[nodiscard]] explicit ScopedTimer(Metric* metric, std::string name = "timer") noexcept
      : metric_(metric), name_(std::move(name)) {}
  /// The same on a series.
  [[nodiscard]] explicit ScopedTimer(ItemPtr item, std::string name = "timer") noexcept
      : item_(std::move(item)), held_(item_ != nullptr && item_->Hold()), name_(std::move(name)) {}
  /// On a handle that is bound to anything but a timer nothing is observed, with a Warn line.
  [[nodiscard]] explicit ScopedTimer(BoundSeries& series) noexcept : series_(&series) {}
  explicit ScopedTimer(BoundSeries&& series) = delete;  // the handle must outlive the timer

  /// Goes on with the measurement; `other` observes nothing.
  ScopedTimer(ScopedTimer&& other) noexcept
      : metric_(other.metric_),
        tags_(std::move(other.tags_)),
        item_(std::move(other.item_)),
        held_(std::exchange(other.held_, false)),
        series_(other.series_),
        name_(std::move(other.name_)),
        begin_(other.begin_),
        running_(std::exchange(other.running_, false)) {}
  /// Goes on with the measurement of `other`; what was measured here so far is observed.
  METRICS_API ScopedTimer& operator=(ScopedTimer other) noexcept;
  ScopedTimer(const ScopedTimer&) = delete;
  /// Observes, unless `Stop` or `Cancel` came before.
  METRICS_API ~ScopedTimer();

  /// Names the series, as often as needed; the last one counts. Only for a timer of a metric.
  void WithTags(std::vector<tidegate::MetricTag> tags) noexcept { tags_ = std::move(tags); }

  /// The time since the construction, also after the timer has observed.
  Clock::duration Elapsed() const noexcept { return Clock::now() - begin_; }

  /// Observes now. From then on, as after `Cancel`, the timer does nothing and answers 70. What
  /// `Emit` answers: 0, or 70 where the tags were refused; 81 without a metric or an item, 52 for a
  /// handle that is no timer, 70 for a compatible metric.
  METRICS_API ReturnCode Stop() noexcept;
  /// Observes nothing any more, and makes no series.
  void Cancel() noexcept { running_ = false; }

 private:
  ReturnCode Report(Clock::duration elapsed) const;

  Metric* metric_ = nullptr;
  std::vector<tidegate::MetricTag> tags_;
  ItemPtr item_;
  bool held_ = false;
  BoundSeries* series_ = nullptr;
  std::string name_;
  Clock::time_point begin_ = Clock::now();
  bool running_ = true;
};

}  // namespace METRICS

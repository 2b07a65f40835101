#pragma once

#include <chrono>
#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "metrics/bound_series.h"
#include "metrics/metric.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "metrics/metric_slot.h"
#include "tidegate/metric_tag.h"
#include "tidegate/tag_view.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

/// Measures the time from its construction to the end of its scope, on the steady clock, and
/// observes it as one timer sample in microseconds:
///
///     ScopedTimer timer(latency);  // a Timer, a BoundTimer, a Metric*, an item or a BoundSeries
///     const Reply reply = Serve(request);
///     timer.WithTags({{"status", reply.code}});  // once they are known
///
/// Work that ends elsewhere takes the measurement along, which may outlive the handle and all else:
///
///     Read(file, [running = latency.Start()](int status) mutable {
///       running.Stop({{"status", status}});
///     });
///
/// A timer of a metric that was never told its tags observes on the series of all tags missing.
/// The series is looked up, and made, when the timer observes, so expiry cannot take it away
/// meanwhile, and a cancelled timer makes none. Observes once: at `Stop` or at the end, unless
/// `Cancel` came first. Threads: one at a time. Ownership: of a `Metric`, a `BoundSeries` and a
/// handle it keeps the address, and they must outlive it. It shares what `Start` of a handle, or a
/// handle that is a temporary, gives it, and an item, which it holds for expiry to leave alone.
/// Moving hands the measurement on; it cannot be copied, and so a `std::function` cannot keep it.
/// Memory: `WithTags` keeps a list that was moved, and copies what is in braces; the look-up
/// allocates for a new series, as `Metric::WithTags` does; on a `BoundSeries` nothing is looked up
/// or allocated. Where memory ends the sample is lost, with code 83, but the cell of an exact timer
/// that cannot grow ends the process, as in every `Emit`.
class [[nodiscard]] ScopedTimer {
 public:
  using Clock = std::chrono::steady_clock;               ///< what it measures by
  using ItemPtr = std::shared_ptr<MetricCollectorItem>;  ///< what `Metric::WithTags` answers

  /// `name` is the suffix or field of the sample. Null measures, and observes nothing.
  [[nodiscard]] explicit ScopedTimer(Metric* metric, std::string name = "timer") noexcept
      : target_(metric), name_(std::move(name)) {}
  /// The same on a series.
  [[nodiscard]] explicit ScopedTimer(ItemPtr item, std::string name = "timer") noexcept
      : held_(item != nullptr && item->Hold()),
        target_(item.get()),
        owner_(std::move(item)),
        name_(std::move(name)) {}
  /// On a handle that is bound to anything but a timer nothing is observed, with a Warn line.
  [[nodiscard]] explicit ScopedTimer(BoundSeries& series) noexcept : target_(&series) {}
  explicit ScopedTimer(BoundSeries&& series) = delete;  // the handle must outlive the timer
  /// Of a `tidegate::Timer` or `tidegate::BoundTimer`.
  template <
      class Handle,
      std::enable_if_t<std::is_same_v<decltype(std::declval<const Handle&>().Start()), ScopedTimer>,
                       int> = 0>
  [[nodiscard]] explicit ScopedTimer(Handle&& handle) noexcept
      : ScopedTimer(FromHandle(std::forward<Handle>(handle))) {}
  /// For handles: `owner`, unless it is null, keeps the slot.
  ScopedTimer(const MetricSlot* slot, std::shared_ptr<const void> owner) noexcept
      : target_(slot), owner_(std::move(owner)) {}
  /// The same of a bound handle.
  ScopedTimer(const SeriesSlot* slot, std::shared_ptr<const void> owner) noexcept
      : target_(slot), owner_(std::move(owner)) {}

  /// Goes on with the measurement; `other` observes nothing.
  ScopedTimer(ScopedTimer&& other) noexcept
      : held_(std::exchange(other.held_, false)),
        target_(other.target_),
        owner_(std::move(other.owner_)),
        tags_(std::move(other.tags_)),
        name_(std::move(other.name_)),
        begin_(other.begin_),
        running_(std::exchange(other.running_, false)) {}
  /// Goes on with the measurement of `other`; what was measured here so far is observed.
  METRICS_API ScopedTimer& operator=(ScopedTimer other) noexcept;
  ScopedTimer(const ScopedTimer&) = delete;
  /// Observes, unless `Stop` or `Cancel` came before.
  METRICS_API ~ScopedTimer();

  /// Names the series, as often as needed; the last one counts. Only for a timer of a metric or of
  /// a `tidegate::Timer`.
  void WithTags(std::vector<tidegate::MetricTag> tags) noexcept { tags_ = std::move(tags); }
  /// The same of texts and numbers.
  void WithTags(std::initializer_list<tidegate::TagView> tags) { tags_ = tidegate::ListOf(tags); }

  /// The time since the construction, also after the timer has observed.
  Clock::duration Elapsed() const noexcept { return Clock::now() - begin_; }

  /// Observes now. From then on, as after `Cancel`, the timer does nothing and answers 70. What
  /// `Emit` answers: 0, or 70 where the tags were refused; 81 for a null metric or item, 52 for a
  /// `BoundSeries` that is no timer, 70 for a compatible metric; of handles what `Observe` answers.
  METRICS_API ReturnCode Stop() noexcept;
  /// The same on the series of `tags`, of which nothing is copied.
  METRICS_API ReturnCode Stop(std::initializer_list<tidegate::TagView> tags) noexcept;
  /// Observes nothing any more, and makes no series.
  void Cancel() noexcept { running_ = false; }

 private:
  template <class Handle>
  static ScopedTimer FromHandle(Handle&& handle) noexcept {
    if constexpr (std::is_lvalue_reference_v<Handle>) {
      return handle.Borrow();
    } else {
      return handle.Start();
    }
  }
  template <class Tags>
  __attribute__((visibility("hidden"))) ReturnCode StopOn(const Tags& tags) noexcept;
  template <class Tags>
  __attribute__((visibility("hidden"))) ReturnCode Report(Clock::duration elapsed,
                                                          const Tags& tags) const;

  bool held_ = false;  ///< the item
  std::variant<Metric*, MetricCollectorItem*, BoundSeries*, const MetricSlot*, const SeriesSlot*>
      target_;
  std::shared_ptr<const void> owner_;  ///< of an item, and of a slot that is shared
  std::vector<tidegate::MetricTag> tags_;
  std::string name_;  ///< empty with a slot
  Clock::time_point begin_ = Clock::now();
  bool running_ = true;
};

}  // namespace METRICS

#define TIDEGATE_NAME_AT(line) tidegate_time_scope_##line
#define TIDEGATE_NAME_OF_LINE(line) TIDEGATE_NAME_AT(line)

/// Observes the time from here to the end of the scope; takes what a `ScopedTimer` takes.
#define TIDEGATE_TIME_SCOPE(...) \
  const ::METRICS::ScopedTimer TIDEGATE_NAME_OF_LINE(__LINE__) { __VA_ARGS__ }

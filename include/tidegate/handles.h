#pragma once

#include <atomic>
#include <chrono>
#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "metrics/metric_method.h"
#include "metrics/metric_slot.h"
#include "metrics/scoped_timer.h"
#include "tidegate/metric_tag.h"
#include "tidegate/tag_view.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"

namespace tidegate {

using METRICS::MetricsType;
using METRICS::ReturnCode;

template <MetricsType kType>
class TypedField;

/// What the handles are made of.
namespace detail {

template <class T, class... Others>
inline constexpr bool kIsOneOf = (std::is_same_v<T, Others> || ...);

/// Integers and floating-point numbers; neither `bool` nor what stands for a character.
template <class T>
inline constexpr bool kIsNumber =
    std::is_arithmetic_v<T> && !kIsOneOf<T, bool, char, wchar_t, char16_t, char32_t>
#ifdef __cpp_char8_t
    && !kIsOneOf<T, char8_t>
#endif
    ;
template <class T>
using IfNumber = std::enable_if_t<kIsNumber<T>, int>;

/// The value of `number` for a cell of the type `type`; named `name` in a row.
template <class Number>
METRICS::MetricFieldValue ValueOf(MetricsType type, Number number, const std::string& name = {}) {
  METRICS::MetricFieldValue value{name, type, false, {}};
  if constexpr (std::is_integral_v<Number>) {
    if (METRICS::FitsInteger(number)) {
      value.is_integer = true;
      value.value.integer = static_cast<int64_t>(number);
      return value;
    }
  }
  value.value.real = static_cast<double>(number);
  return value;
}

/// What all handles have. It has no move of its own: a handle that was moved from still works.
class Handle {
 public:
  using Tags = std::initializer_list<TagView>;
  using TagList = std::vector<MetricTag>;

  Handle() = default;
  Handle(const Handle&) = default;
  Handle& operator=(const Handle&) = default;

  /// Whether emissions get through: false for a handle that was never given a metric, for one whose
  /// metric could not be made, and once its `Metrics` has ended.
  explicit operator bool() const { return Get() != nullptr; }
  /// Why it does nothing, in English; empty while it works. Good for as long as the handle.
  const std::string& Error() const { return METRICS::ErrorOf(slot_.get()); }

 protected:
  explicit Handle(std::shared_ptr<METRICS::MetricSlot> slot) : slot_(std::move(slot)) {}
  // A static object may emit on one that was destroyed before it: it has no metric then. The
  // compiler must not leave that out as a store that nobody reads.
  ~Handle() {
    slot_.reset();
    asm volatile("" : : "r"(this) : "memory");
  }

  METRICS::Metric* Get() const {
    return slot_ != nullptr ? slot_->metric.load(std::memory_order_acquire) : nullptr;
  }
  /// `Values` is one value or a list of them in braces.
  template <class TagsOrList, class Values>
  ReturnCode Emit(const TagsOrList& tags, const Values& values) const {
    METRICS::Metric* const metric = Get();
    return metric != nullptr ? metric->Emit(tags, values) : METRICS::RefusalOf(slot_.get());
  }
  std::shared_ptr<METRICS::SeriesSlot> Bind(TagList tags, MetricsType type,
                                            const std::string& name = {}) const {
    return METRICS::BindSlot(slot_, std::move(tags), name, type);
  }

  std::shared_ptr<METRICS::MetricSlot> slot_;
};

/// What all handles on one series have.
class BoundHandle {
 public:
  BoundHandle() = default;
  BoundHandle(const BoundHandle&) = default;
  BoundHandle& operator=(const BoundHandle&) = default;

  /// Whether it is bound to a series; false as `Handle` says, and for tags that were refused.
  explicit operator bool() const { return static_cast<bool>(Series()); }
  /// Why it does nothing, in English; empty while it is bound. Good for as long as the handle.
  const std::string& Error() const { return METRICS::ErrorOf(*slot_); }

 protected:
  explicit BoundHandle(std::shared_ptr<METRICS::SeriesSlot> slot)
      : slot_(slot.get()), owner_(std::move(slot)) {}
  ~BoundHandle() {  // as that of `Handle`
    slot_ = &METRICS::g_no_series;
    asm volatile("" : : "r"(this) : "memory");
  }

  METRICS::BoundSeries& Series() const { return *slot_->series.load(std::memory_order_acquire); }

  const METRICS::SeriesSlot* slot_ = &METRICS::g_no_series;
  std::shared_ptr<const METRICS::SeriesSlot> owner_;
};

}  // namespace detail

// Handles are plain values: cheap to copy, good in any thread, in lambdas and in static objects.
// They stay harmless beyond the end of the `Metrics` that made them, and work again after a block
// and, by `Metrics::Init`, in the child of a fork. Emissions answer 0, 70 on a handle that was
// given no metric, the code of the failure on one whose metric could not be made, 23 once the
// `Metrics` has ended, and what `Metric::Emit` answers. On a bound handle they answer 70 in all
// these cases, and else what `BoundSeries::Emit` answers. A number is an
// integer or a floating-point number, and integers stay integers; what is none does not compile.

/// A handle on one series of an `Adder`.
template <MetricsType kType>
class BoundAdder : public detail::BoundHandle {
 public:
  /// Bound to nothing.
  BoundAdder() = default;
  /// For `With` and the library.
  explicit BoundAdder(std::shared_ptr<METRICS::SeriesSlot> slot) : BoundHandle(std::move(slot)) {}

  /// Adds `number`. Nothing is looked up.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Add(Number number) const {
    return Series().Emit(number);
  }
};

/// A counter, rate, meter or delta counter: numbers that add up.
template <MetricsType kType>
class Adder : public detail::Handle {
 public:
  /// Without a metric.
  Adder() = default;
  /// For `Metrics` and the library.
  explicit Adder(std::shared_ptr<METRICS::MetricSlot> slot) : Handle(std::move(slot)) {}

  /// Adds `number` to the series whose declared tags are all missing.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Add(Number number) const {
    return Emit(Tags{}, detail::ValueOf(kType, number));
  }
  /// Adds `number` to the series of `tags`; cheapest in the sorted order of the declared names.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Add(Number number, Tags tags) const {
    return Emit(tags, detail::ValueOf(kType, number));
  }
  /// The same of a list.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Add(Number number, const TagList& tags) const {
    return Emit(tags, detail::ValueOf(kType, number));
  }
  /// A handle on the series of `tags`, for emissions without any look-up.
  BoundAdder<kType> With(Tags tags) const { return With(ListOf(tags)); }
  /// The same of a list.
  BoundAdder<kType> With(const TagList& tags) const { return BoundAdder<kType>(Bind(tags, kType)); }
};

/// A handle on one series of a `Gauge`.
class BoundGauge : public detail::BoundHandle {
 public:
  /// Bound to nothing.
  BoundGauge() = default;
  /// For `With` and the library.
  explicit BoundGauge(std::shared_ptr<METRICS::SeriesSlot> slot) : BoundHandle(std::move(slot)) {}

  /// Sets the gauge. Nothing is looked up.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Set(Number number) const {
    return Series().Emit(number);
  }
};

/// How much there is right now: the last value of an interval stands.
class Gauge : public detail::Handle {
 public:
  /// Without a metric.
  Gauge() = default;
  /// For `Metrics` and the library.
  explicit Gauge(std::shared_ptr<METRICS::MetricSlot> slot) : Handle(std::move(slot)) {}

  /// Sets the gauge of the series whose declared tags are all missing.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Set(Number number) const {
    return Emit(Tags{}, detail::ValueOf(kType, number));
  }
  /// Sets that of the series of `tags`.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Set(Number number, Tags tags) const {
    return Emit(tags, detail::ValueOf(kType, number));
  }
  /// The same of a list.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Set(Number number, const TagList& tags) const {
    return Emit(tags, detail::ValueOf(kType, number));
  }
  /// A handle on the series of `tags`, for emissions without any look-up.
  BoundGauge With(Tags tags) const { return With(ListOf(tags)); }
  /// The same of a list.
  BoundGauge With(const TagList& tags) const { return BoundGauge(Bind(tags, kType)); }

 private:
  static constexpr MetricsType kType = MetricsType::kGauge;
};

/// A handle on one series of a `Histogram`.
class BoundHistogram : public detail::BoundHandle {
 public:
  /// Bound to nothing.
  BoundHistogram() = default;
  /// For `With` and the library.
  explicit BoundHistogram(std::shared_ptr<METRICS::SeriesSlot> slot)
      : BoundHandle(std::move(slot)) {}

  /// Takes a sample. Nothing is looked up.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Observe(Number number) const {
    return Series().Emit(number);
  }
};

/// How values spread: how many samples there are between the bounds of the metric.
class Histogram : public detail::Handle {
 public:
  /// Without a metric.
  Histogram() = default;
  /// For `Metrics` and the library.
  explicit Histogram(std::shared_ptr<METRICS::MetricSlot> slot) : Handle(std::move(slot)) {}

  /// Takes a sample of the series whose declared tags are all missing.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Observe(Number number) const {
    return Emit(Tags{}, detail::ValueOf(kType, number));
  }
  /// Takes one of the series of `tags`.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Observe(Number number, Tags tags) const {
    return Emit(tags, detail::ValueOf(kType, number));
  }
  /// The same of a list.
  template <class Number, detail::IfNumber<Number> = 0>
  ReturnCode Observe(Number number, const TagList& tags) const {
    return Emit(tags, detail::ValueOf(kType, number));
  }
  /// A handle on the series of `tags`, for emissions without any look-up.
  BoundHistogram With(Tags tags) const { return With(ListOf(tags)); }
  /// The same of a list.
  BoundHistogram With(const TagList& tags) const { return BoundHistogram(Bind(tags, kType)); }

 private:
  static constexpr MetricsType kType = MetricsType::kHistogram;
};

/// A handle on one series of a `Timer`.
class BoundTimer : public detail::BoundHandle {
 public:
  /// Bound to nothing.
  BoundTimer() = default;
  /// For `With` and the library.
  explicit BoundTimer(std::shared_ptr<METRICS::SeriesSlot> slot) : BoundHandle(std::move(slot)) {}

  /// Takes a sample. Nothing is looked up.
  template <class Rep, class Period>
  ReturnCode Observe(const std::chrono::duration<Rep, Period>& time) const {
    return Series().Emit(time);
  }
  /// Measures from now on, until the result stops or dies. It may outlive this handle, and go on in
  /// another thread.
  METRICS::ScopedTimer Start() const { return METRICS::ScopedTimer(slot_, owner_); }

 private:
  friend class METRICS::ScopedTimer;
  METRICS::ScopedTimer Borrow() const { return METRICS::ScopedTimer(slot_, nullptr); }
};

/// How long things take.
class Timer : public detail::Handle {
 public:
  /// Without a metric.
  Timer() = default;
  /// For `Metrics` and the library.
  explicit Timer(std::shared_ptr<METRICS::MetricSlot> slot) : Handle(std::move(slot)) {}

  /// Takes a sample of the series whose declared tags are all missing.
  template <class Rep, class Period>
  ReturnCode Observe(const std::chrono::duration<Rep, Period>& time) const {
    return Emit(Tags{}, detail::ValueOf(kType, METRICS::Microseconds(time)));
  }
  /// Takes one of the series of `tags`.
  template <class Rep, class Period>
  ReturnCode Observe(const std::chrono::duration<Rep, Period>& time, Tags tags) const {
    return Emit(tags, detail::ValueOf(kType, METRICS::Microseconds(time)));
  }
  /// The same of a list.
  template <class Rep, class Period>
  ReturnCode Observe(const std::chrono::duration<Rep, Period>& time, const TagList& tags) const {
    return Emit(tags, detail::ValueOf(kType, METRICS::Microseconds(time)));
  }
  /// A handle on the series of `tags`, for emissions without any look-up.
  BoundTimer With(Tags tags) const { return With(ListOf(tags)); }
  /// The same of a list.
  BoundTimer With(const TagList& tags) const { return BoundTimer(Bind(tags, kType)); }
  /// Measures from now on, until the result stops or dies. It may outlive this handle, and go on in
  /// another thread; the tags may be named at the end.
  METRICS::ScopedTimer Start() const { return METRICS::ScopedTimer(slot_.get(), slot_); }

 private:
  friend class METRICS::ScopedTimer;
  METRICS::ScopedTimer Borrow() const { return METRICS::ScopedTimer(slot_.get(), nullptr); }
  static constexpr MetricsType kType = MetricsType::kTimer;
};

using Counter = Adder<MetricsType::kCounter>;
using Rate = Adder<MetricsType::kRate>;
using Meter = Adder<MetricsType::kMeter>;
using DeltaCounter = Adder<MetricsType::kDeltaCounter>;
using BoundCounter = BoundAdder<MetricsType::kCounter>;
using BoundRate = BoundAdder<MetricsType::kRate>;
using BoundMeter = BoundAdder<MetricsType::kMeter>;
using BoundDeltaCounter = BoundAdder<MetricsType::kDeltaCounter>;

namespace detail {

/// The handle on a field of a row.
template <MetricsType kType>
struct BoundOf {
  using Type = BoundAdder<kType>;
};
template <>
struct BoundOf<MetricsType::kGauge> {
  using Type = BoundGauge;
};
template <>
struct BoundOf<MetricsType::kTimer> {
  using Type = BoundTimer;
};
template <>
struct BoundOf<MetricsType::kHistogram> {
  using Type = BoundHistogram;
};

}  // namespace detail

/// A declared number of a row: its name and kind, and the bounds of a histogram.
class Field {
 public:
  const std::string& Name() const { return name_; }              ///< differs within a row
  MetricsType Type() const { return type_; }                     ///< its kind
  const std::vector<double>& Bounds() const { return bounds_; }  ///< of a histogram

 protected:
  /// For `TypedField`.
  Field(std::string name, MetricsType type, std::vector<double> bounds)
      : name_(std::move(name)), type_(type), bounds_(std::move(bounds)) {}

 private:
  std::string name_;
  MetricsType type_;
  std::vector<double> bounds_;
};

/// A number for a field, which only that makes: `size(64)`.
class FieldValue : public METRICS::MetricFieldValue {
 private:
  template <MetricsType kType>
  friend class TypedField;
  explicit FieldValue(METRICS::MetricFieldValue of_field)
      : METRICS::MetricFieldValue(std::move(of_field)) {}
};
static_assert(sizeof(FieldValue) == sizeof(METRICS::MetricFieldValue), "lists of them are alike");

/// A field of one kind, to be declared once and called for each value:
///
///     const tidegate::GaugeField size("size");
///     const tidegate::RateField hits("hits");
///     tidegate::Row cache = metrics.Row("cache", {}, {size, hits});
///     cache.Emit({size(64), hits(3)});
template <MetricsType kType>
class TypedField : public Field {
 public:
  /// `bounds` are those of a histogram.
  explicit TypedField(std::string name, std::vector<double> bounds = {})
      : Field(std::move(name), kType, std::move(bounds)) {}

  /// The value `number`.
  template <class Number, MetricsType kThis = kType, detail::IfNumber<Number> = 0,
            std::enable_if_t<kThis != MetricsType::kTimer, int> = 0>
  FieldValue operator()(Number number) const {
    return FieldValue(detail::ValueOf(kType, number, Name()));
  }
  /// The value `time`, of a timer.
  template <class Rep, class Period, MetricsType kThis = kType,
            std::enable_if_t<kThis == MetricsType::kTimer, int> = 0>
  FieldValue operator()(const std::chrono::duration<Rep, Period>& time) const {
    return FieldValue(detail::ValueOf(kType, METRICS::Microseconds(time), Name()));
  }
};

using GaugeField = TypedField<MetricsType::kGauge>;
using RateField = TypedField<MetricsType::kRate>;
using CounterField = TypedField<MetricsType::kCounter>;
using MeterField = TypedField<MetricsType::kMeter>;
using DeltaCounterField = TypedField<MetricsType::kDeltaCounter>;
using TimerField = TypedField<MetricsType::kTimer>;
using HistogramField = TypedField<MetricsType::kHistogram>;

/// Several declared numbers per series, the cheapest way to send them.
class Row : public detail::Handle {
 public:
  using Values = std::initializer_list<FieldValue>;  ///< what fields make: `{size(64)}`

  /// Without a metric.
  Row() = default;
  /// For `Metrics` and the library.
  explicit Row(std::shared_ptr<METRICS::MetricSlot> slot) : Handle(std::move(slot)) {}

  /// Emits `values`, in any order and not necessarily all, on the series of `tags`. A field that is
  /// not of this row is dropped with a Warn line, and so is one of another kind.
  ReturnCode Emit(Values values, Tags tags = {}) const {
    METRICS::Metric* const metric = Get();
    return metric != nullptr ? METRICS::EmitByViews(*metric->impl_, tags.begin(), tags.size(),
                                                    values.begin(), values.size())
                             : METRICS::RefusalOf(slot_.get());
  }
  /// The same with a list of tags.
  ReturnCode Emit(Values values, const TagList& tags) const {
    METRICS::Metric* const metric = Get();
    return metric != nullptr
               ? METRICS::EmitByTags(*metric->impl_, tags, values.begin(), values.size())
               : METRICS::RefusalOf(slot_.get());
  }
  /// A handle on one field of the series of `tags`, for emissions without any look-up.
  template <MetricsType kType>
  typename detail::BoundOf<kType>::Type With(Tags tags, const TypedField<kType>& field) const {
    return With(ListOf(tags), field);
  }
  /// The same with a list of tags.
  template <MetricsType kType>
  typename detail::BoundOf<kType>::Type With(const TagList& tags,
                                             const TypedField<kType>& field) const {
    return typename detail::BoundOf<kType>::Type(Bind(tags, kType, field.Name()));
  }
};

}  // namespace tidegate

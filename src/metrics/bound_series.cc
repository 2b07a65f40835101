#include "metrics/bound_series.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "metrics/impl/metric_impl.h"
#include "metrics/metric.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_data.h"
#include "metrics/metric_histogram.h"
#include "metrics/series_items.h"
#include "util/event_counter_add.h"
#include "util/fork_guard.h"
#include "util/line_allocator.h"
#include "util/logging_lock.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"
#include "util/wait.h"
#include "util/wall_clock.h"

namespace METRICS {
namespace {

using ItemPtr = std::shared_ptr<MetricCollectorItem>;

MetricState StateOf(const MetricImpl& impl) { return impl.state_.load(std::memory_order_acquire); }

/// Why a metric in `state` gave the dummy item.
ReturnCode RefusalOf(MetricState state) {
  switch (state) {
    case MetricState::BLOCKED:
      return ReturnCode::kObjectBlocked;
    case MetricState::SHUTDOWN:
      return ReturnCode::kObjectExit;
    case MetricState::INIT:
    case MetricState::READY:
      break;
  }
  return ReturnCode::kNotSupported;
}

/// Whether the series of `metric` can have a cell of `type` named `name`, as far as that can be
/// told without a series.
ReturnCode CheckCell(const MetricParts& metric, const std::string& name, MetricsType type) {
  const std::vector<double>* bounds = nullptr;
  if (metric.kind_ == MetricCoItemType::kCoItemSuffix) {
    if (!IsValidKeyOrEmpty(name)) {
      return ReturnCode::kInvalidString;
    }
    bounds = &metric.GetHistogram();
  } else if (metric.kind_ == MetricCoItemType::kCoItemField) {
    const std::vector<MetricFieldInfo>& fields = metric.GetFieldInfo();
    // Of two fields of one name the last one has the cell.
    const auto field = std::find_if(fields.rbegin(), fields.rend(),
                                    [&name](const MetricFieldInfo& f) { return f.name == name; });
    if (field == fields.rend()) {
      return ReturnCode::kObjectNotExisted;
    }
    if (field->type != type) {
      return ReturnCode::kInvalidMetricType;
    }
    bounds = &FindHistogram(name, fields);
  } else {
    return ReturnCode::kNotSupported;
  }
  if (type == MetricsType::kHistogram && bounds->empty()) {
    METRICS_LOG_WARN("Histogram [%s] of metric[%s] has no bounds\n", name.c_str(),
                     metric.name_.c_str());
    return ReturnCode::kMaxHistoBucket;
  }
  return ReturnCode::kOk;
}

/// The item of the series, which expiry leaves alone from now on.
ReturnCode HoldSeries(Metric& metric, const std::vector<std::string>& values, ItemPtr& held) {
  for (uint32_t turn = 0;; ++turn) {
    ItemPtr item = metric.WithTagValues(values);
    if (item == DummyItem()) {
      return RefusalOf(StateOf(*metric.impl_));
    }
    if (item->Hold()) {
      held = std::move(item);
      return ReturnCode::kOk;
    }
    PauseInWait(turn);  // the expiry is about to take it out of the table
  }
}

}  // namespace

static_assert(sizeof(BoundSeries) <= kCacheLineBytes, "an emission reads no more of it");

/// What a handle keeps alive, and what it takes to bind it anew.
struct BoundSeries::Pins {
  ~Pins() {
    if (::getpid() != process) {
      // A child must not let the last owner go: who dies then takes locks of the parent's threads.
      Abandon(metric), Abandon(item), Abandon(cell);
    } else if (item != nullptr) {
      item->LetGo();
    }
  }
  /// The handle on the series that has taken the place of a dropped one; null, with the code in
  /// `code` and counted, if there is none to be had. Any thread.
  __attribute__((visibility("hidden"))) std::shared_ptr<BoundSeries> BoundAnew(MetricsType type,
                                                                               ReturnCode& code);

  const pid_t process = ::getpid();
  std::shared_ptr<Metric> metric;  // goes last: the item refers to it, or to one that it keeps
  ItemPtr item;
  CellPtr cell;
  std::vector<std::string> values;
  std::string name;
  LoggingMutex mutex;
  std::shared_ptr<BoundSeries> anew METRICS_GUARDED_BY(mutex);
};

ReturnCode BoundSeries::Bind(Metric* metric, const Tags& tags, const std::string& name,
                             MetricsType type) {
  *this = BoundSeries();
  ReturnCode code = ReturnCode::kOk;
  if (metric == nullptr) {
    code = ReturnCode::kNullptr;
  } else if (!IsCellType(type)) {
    code = ReturnCode::kInvalidMetricType;
  } else if (metric->kind_ == MetricCoItemType::kCoItemCompatible) {
    code = ReturnCode::kNotSupported;
  } else {
    code = BindTags(*metric, tags, name, type);
  }
  if (code != ReturnCode::kOk) {
    METRICS_LOG_CODE(code);
  }
  return code;
}

ReturnCode BoundSeries::BindTags(Metric& metric, const Tags& tags, const std::string& name,
                                 MetricsType type) {
  MetricImpl& impl = *metric.impl_;
  const MetricState state = StateOf(impl);
  if (state != MetricState::READY) {
    return RefusalOf(state);
  }
  std::vector<std::string> values(impl.tag_count_, "-");
  const ReturnCode code = impl.GetTagValueVec(tags, values);
  return code == ReturnCode::kOk ? BindValues(metric, std::move(values), name, type) : code;
}

ReturnCode BoundSeries::BindValues(Metric& metric, std::vector<std::string> values,
                                   const std::string& name, MetricsType type) {
  // The collector's own metric: with two metrics of one full name it is the first one's.
  const std::shared_ptr<MetricParts> owner = metric.impl_->collector_->PinMetric();
  if (owner == nullptr) {
    return ReturnCode::kObjectExit;
  }
  ReturnCode code = CheckCell(*owner, name, type);
  if (code != ReturnCode::kOk) {
    return code;
  }
  const auto pins = std::make_shared<Pins>();
  pins->values = std::move(values);
  pins->name = name;
  code = HoldSeries(metric, pins->values, pins->item);
  if (code != ReturnCode::kOk) {
    return code;
  }
  pins->metric = std::static_pointer_cast<Metric>(metric.weak_from_this().lock());
  if (pins->metric == nullptr) {
    return ReturnCode::kObjectExit;
  }
  code = pins->item->FindCell(name, type, pins->cell);
  if (code != ReturnCode::kOk) {
    return code;
  }
  if (type == MetricsType::kHistogram) {
    bounds_ = owner->kind_ == MetricCoItemType::kCoItemSuffix
                  ? &owner->GetHistogram()
                  : &FindHistogram(name, owner->GetFieldInfo());
  }
  cell_ = pins->cell.get();
  sums_ = SumsOf(*cell_, type);
  item_ = pins->item.get();
  success_ = &owner->emit_success_;
  success_->Spread(EventCounter::kSpreadLines);
  type_ = type;
  pins_ = pins;
  return ReturnCode::kOk;
}

std::shared_ptr<BoundSeries> BoundSeries::Pins::BoundAnew(MetricsType type, ReturnCode& code) {
  const WriteGuard guard(mutex);
  if (anew != nullptr && !anew->item_->IsDropped()) {
    return anew;
  }
  anew = nullptr;
  const MetricState state = StateOf(*metric->impl_);
  if (state != MetricState::READY) {
    metric->emit_fail_.fetch_add(1, std::memory_order_relaxed);
    code = RefusalOf(state);
    return nullptr;
  }
  auto made = std::make_shared<BoundSeries>();
  code = made->BindValues(*metric, values, name, type);
  if (code == ReturnCode::kOk) {
    anew = std::move(made);
  } else if (code != ReturnCode::kNotSupported && code != ReturnCode::kObjectBlocked &&
             code != ReturnCode::kObjectExit) {  // with these the look-up has counted
    metric->emit_fail_.fetch_add(1, std::memory_order_relaxed);
  }
  return anew;
}

void BoundSeries::CountEmission() {
  item_->MarkTime(WallSeconds());
  success_->Add(1);
}

// The adding kinds come first, and need no virtual call; nor does a gauge.
template <class Number>
ReturnCode BoundSeries::EmitShown(Number number) {
  if (sums_ != nullptr) {
    CountEmission();
    sums_->Emit(number);
  } else if (type_ == MetricsType::kGauge) {
    CountEmission();
    static_cast<MetricGauge*>(cell_)->Emit(number);
  } else if (type_ == MetricsType::kHistogram) {
    CountEmission();
    EmitSample(*cell_, number, *bounds_);
  } else {
    cell_->Emit(number);  // throws without memory, and then has not succeeded
    CountEmission();
  }
  return ReturnCode::kOk;
}

template <class Number>
ReturnCode BoundSeries::EmitNumber(Number number) {
  if (cell_ == nullptr) {
    return ReturnCode::kNotSupported;
  }
  return item_->active_.load(std::memory_order_relaxed) ? EmitShown(number) : EmitHidden(number);
}

template <class Number>
ReturnCode BoundSeries::EmitHidden(Number number) {
  ReturnCode code = ReturnCode::kOk;
  std::shared_ptr<BoundSeries> anew;
  if (item_->IsDropped() && (anew = pins_->BoundAnew(type_, code)) == nullptr) {
    return code;
  }
  BoundSeries& shown = anew != nullptr ? *anew : *this;
  shown.EmitShown(number);
  shown.item_->SetActive(true);
  return ReturnCode::kOk;
}

ReturnCode BoundSeries::EmitInteger(int64_t number) { return EmitNumber<long>(number); }

ReturnCode BoundSeries::EmitReal(double number) { return EmitNumber(number); }

}  // namespace METRICS

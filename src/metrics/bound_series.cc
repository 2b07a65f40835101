#include "metrics/bound_series.h"

#include <unistd.h>

#include <utility>

#include "metrics/metric.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_data.h"
#include "metrics/metric_histogram.h"
#include "util/event_counter.h"
#include "util/fork_guard.h"
#include "util/metric_log.h"
#include "util/wait.h"

namespace METRICS {
namespace {

using ItemPtr = std::shared_ptr<MetricCollectorItem>;

/// Why the metric gave the dummy item.
ReturnCode RefusalOf(const MetricImpl& impl) {
  switch (impl.state_.load(std::memory_order_acquire)) {
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

/// The item of the series, which expiry leaves alone from now on.
ReturnCode HoldSeries(Metric& metric, const BoundSeries::Tags& tags, ItemPtr& item) {
  MetricImpl& impl = *metric.impl_;
  if (impl.state_.load(std::memory_order_acquire) != MetricState::READY) {
    return RefusalOf(impl);  // a removed one has lost its tag names
  }
  std::vector<std::string> values(impl.tag_count_, "-");
  const ReturnCode code = impl.GetTagValueVec(tags, values);
  if (code != ReturnCode::kOk) {
    return code;
  }
  for (uint32_t turn = 0;; ++turn) {
    item = impl.WithTagValues(values);
    if (item == DummyItem()) {
      return RefusalOf(impl);
    }
    if (item->Hold()) {
      return ReturnCode::kOk;
    }
    PauseInWait(turn);  // the expiry is about to take it out of the table
  }
}

}  // namespace

/// What a handle keeps alive. The metric goes last: the item refers to it.
struct BoundSeries::Pins {
  ~Pins() {
    if (::getpid() != process) {
      // A child must not let the last owner go: who dies then takes locks of the parent's threads.
      Abandon(metric), Abandon(item), Abandon(cell);
    } else {
      item->LetGo();
    }
  }

  const pid_t process = ::getpid();
  std::shared_ptr<Metric> metric;
  ItemPtr item;
  CellPtr cell;
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
    code = BindTo(*metric, tags, name, type);
  }
  if (code != ReturnCode::kOk) {
    METRICS_LOG_CODE(code);
  }
  return code;
}

ReturnCode BoundSeries::BindTo(Metric& metric, const Tags& tags, const std::string& name,
                               MetricsType type) {
  ItemPtr item;
  ReturnCode code = HoldSeries(metric, tags, item);
  if (code != ReturnCode::kOk) {
    return code;
  }
  // The item's own metric: with two metrics of one full name it is the first one's.
  const auto pins = std::make_shared<Pins>();
  pins->item = std::move(item);
  pins->metric = pins->item->metric_->weak_from_this().lock();
  if (pins->metric == nullptr) {
    return ReturnCode::kObjectExit;
  }
  code = pins->item->FindCell(name, type, pins->cell);
  if (code != ReturnCode::kOk) {
    return code;
  }
  if (type == MetricsType::kHistogram) {
    bounds_ = pins->metric->kind_ == MetricCoItemType::kCoItemSuffix
                  ? &pins->metric->GetHistogram()
                  : &FindHistogram(name, pins->metric->GetFieldInfo());
  }
  cell_ = pins->cell.get();
  item_ = pins->item.get();
  success_ = &pins->metric->emit_success_;
  success_->Spread(EventCounter::kSpreadLines);
  type_ = type;
  pins_ = pins;
  return ReturnCode::kOk;
}

// The cells' own forms are named, so that they need no virtual call and can be inlined.
template <class Number>
void BoundSeries::EmitToCell(Number number) {
  switch (type_) {
    case MetricsType::kGauge:
      static_cast<MetricGauge*>(cell_)->Emit(number);
      return;
    case MetricsType::kRate:
      static_cast<MetricRate*>(cell_)->Emit(number);
      return;
    case MetricsType::kCounter:
      static_cast<MetricCounter*>(cell_)->Emit(number);
      return;
    case MetricsType::kMeter:
      static_cast<MetricMeter*>(cell_)->Emit(number);
      return;
    case MetricsType::kDeltaCounter:
      static_cast<MetricDeltaCounter*>(cell_)->Emit(number);
      return;
    case MetricsType::kHistogram:
      EmitSample(*cell_, number, *bounds_);
      return;
    case MetricsType::kTimer:
    case MetricsType::kUnknown:
    case MetricsType::kMultiField:
    case MetricsType::kTypeEnd:
      break;
  }
  cell_->Emit(number);
}

template <class Number>
ReturnCode BoundSeries::EmitNumber(Number number) {
  if (cell_ == nullptr) {
    return ReturnCode::kNotSupported;
  }
  // The cell comes last: it has the one instruction that others may have to wait for.
  success_->Add(1);
  item_->Refresh();
  EmitToCell(number);
  return ReturnCode::kOk;
}

ReturnCode BoundSeries::EmitInteger(int64_t number) { return EmitNumber<long>(number); }

ReturnCode BoundSeries::EmitReal(double number) { return EmitNumber(number); }

}  // namespace METRICS

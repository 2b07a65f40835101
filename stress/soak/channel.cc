#include "soak/channel.h"

#include <algorithm>
#include <numeric>
#include <unordered_map>
#include <utility>

#include "metrics/histo_util.h"
#include "metrics/impl/metric_impl.h"
#include "metrics/metric_method.h"

namespace tidegate::stress {
namespace {

using METRICS::MetricCoItemType;
using METRICS::MetricFieldValue;
using METRICS::MetricsType;
using METRICS::ReturnCode;
using tidegate::MetricTag;

constexpr int kMaxValue = 200;
constexpr int kBurst = 300;

const std::vector<const char*>& FieldNames() {
  static const std::vector<const char*> names{"g", "r", "c", "m", "d", "t", "h"};
  return names;
}

bool IsRowMetric(Shape shape) { return shape == Shape::kRow || shape == Shape::kRowCkms; }

Columns Of(std::initializer_list<Column> columns) {
  Columns set;
  for (const Column column : columns) {
    set.set(IndexOf(column));
  }
  return set;
}

Columns ColumnsOf(Shape shape) {
  switch (shape) {
    case Shape::kSuffixed:
    case Shape::kSuffixedCkms:
    case Shape::kSuffixedRowTimer:
    case Shape::kRow:
    case Shape::kRowCkms:
      return Columns().set();
    case Shape::kCompatibleRate:
      return Of({Column::kRate});
    case Shape::kCompatibleCounter:
      return Of({Column::kCounter});
    case Shape::kCompatibleMeter:
      return Of({Column::kMeter, Column::kMeterRate});
    case Shape::kCompatibleTimer:
      return Of({Column::kTimerSum, Column::kTimerCount});
    case Shape::kCompatibleGauge:
      break;
  }
  return {};
}

MetricsType CompatibleTypeOf(Shape shape) {
  switch (shape) {
    case Shape::kCompatibleRate:
      return MetricsType::kRate;
    case Shape::kCompatibleCounter:
      return MetricsType::kCounter;
    case Shape::kCompatibleMeter:
      return MetricsType::kMeter;
    case Shape::kCompatibleTimer:
      return MetricsType::kTimer;
    default:
      return MetricsType::kGauge;
  }
}

// One value for each verb, in the order of `FieldNames`.
template <class Number>
std::vector<MetricFieldValue> AllVerbs(Number value) {
  return {METRICS::Store(value),     METRICS::Incr(value), METRICS::IncrCounter(value),
          METRICS::IncrMeter(value), METRICS::Add(value),  METRICS::Observe(value),
          METRICS::Stat(value)};
}

// The same for each cell that a shape other than the compatible ones has.
template <class Number>
std::vector<MetricFieldValue> VerbsOf(Shape shape, Number value) {
  std::vector<MetricFieldValue> values = AllVerbs(value);
  if (IsRowMetric(shape)) {
    for (size_t i = 0; i < values.size(); ++i) {
      values[i].name = FieldNames()[i];
    }
  }
  return values;
}

}  // namespace

bool IsCompatible(Shape shape) { return shape >= Shape::kCompatibleRate; }

METRICS::Metric* MakeMetric(METRICS::MetricRegistry& registry, const std::string& name, Shape shape,
                            Report& report) {
  METRICS::HistoUtilBase bounds({1, 20, 50, 100, 500});
  METRICS::MetricRegistry::MetricInitCfg init;
  init.kind = MetricCoItemType::kCoItemSuffix;
  init.cfg.name = name;
  if (IsCompatible(shape)) {
    init.kind = MetricCoItemType::kCoItemCompatible;
  } else {
    init.cfg.tag_names = {"w", "g"};
  }
  if (IsRowMetric(shape)) {
    init.kind = MetricCoItemType::kCoItemField;
    const std::vector<MetricFieldValue> verbs = AllVerbs(1);
    for (size_t i = 0; i < verbs.size(); ++i) {
      init.cfg.fields.push_back({FieldNames()[i], verbs[i].type, &bounds});
    }
  } else if (!IsCompatible(shape)) {
    init.cfg.histo = &bounds;
  }
  METRICS::Metric* metric = nullptr;
  const ReturnCode code = registry.CreateMetric(metric, std::move(init));
  if (!report.Check(code == ReturnCode::kOk, "a metric was refused: " + name)) {
    return nullptr;
  }
  if (IsCompatible(shape)) {
    metric->SetCompatibleType(CompatibleTypeOf(shape));
  }
  metric->SetUseCkms(shape == Shape::kSuffixedCkms || shape == Shape::kRowCkms);
  metric->SetMultiFieldSummary(shape == Shape::kSuffixedRowTimer);
  return metric;
}

Channel::Channel(Plan plan, Ledger& ledger, Report& report)
    : plan_(std::move(plan)), ledger_(ledger), report_(report) {
  const METRICS::MetricRegistry& registry = *plan_.metric->registry_;
  const std::string generation = plan_.tags_arrive ? plan_.generation : std::string();
  for (size_t i = 0; i < plan_.series; ++i) {
    workers_.push_back(std::to_string(i));
    const std::string worker = plan_.tags_arrive ? workers_[i] : std::string();
    accounts_.push_back(std::make_shared<Account>(
        SeriesKey(registry.Tenant(), plan_.metric->name_, generation, worker),
        ColumnsOf(plan_.shape), registry.FlushInterval()));
    ledger_.Open(accounts_.back());
  }
}

std::vector<std::string> Channel::TagPairs(size_t series) const {
  return {"g", plan_.generation, "w", workers_[series]};
}

std::vector<MetricTag> Channel::TagList(size_t series) const {
  return {{"w", workers_[series]}, {"g", plan_.generation}};
}

Channel::Item Channel::Find(size_t series) const {
  if (IsCompatible(plan_.shape)) {
    return plan_.metric->impl_->WithCompatibleTags(TagPairs(series));
  }
  return plan_.metric->WithTagValues({plan_.generation, workers_[series]});
}

Channel::Item Channel::FindSomehow(size_t series, Random& random) const {
  METRICS::Metric& metric = *plan_.metric;
  switch (random() % 5) {
    case 0:
      return metric.WithTags(TagList(series));
    case 1:
      return metric.WithTags({{"g", plan_.generation}, {"w", series}});
    case 2:
      return metric.WithTagMap({{"w", workers_[series]}, {"g", plan_.generation}});
    case 3:
      if (!held_.empty()) {
        return held_[series];
      }
      [[fallthrough]];
    default:
      return Find(series);
  }
}

void Channel::Prime() {
  for (size_t i = 0; i < plan_.series; ++i) {
    held_.push_back(Find(i));
    held_.back()->Refresh();
  }
}

void Channel::Bind() {
  if (!plan_.bound || IsCompatible(plan_.shape) || !handles_.empty()) {
    return;
  }
  const std::vector<MetricFieldValue> verbs = VerbsOf(plan_.shape, 0L);
  for (const std::string& worker : workers_) {
    for (const MetricFieldValue& verb : verbs) {
      METRICS::BoundSeries& handle = handles_.emplace_back();
      const ReturnCode code =
          handle.Bind(plan_.metric, {{"w", worker}, {"g", plan_.generation}}, verb);
      report_.Check(code == ReturnCode::kOk, "a series was not bound: " + plan_.metric->name_);
    }
  }
}

void Channel::EmitOn(size_t series, Random& random) {
  Account& account = *accounts_[series];
  const int value = RandomValue(random);
  account.Enter(value);
  if (IsCompatible(plan_.shape)) {
    Check(plan_.metric->CEmit(value, TagPairs(series)));
    return;
  }
  std::vector<MetricFieldValue> values = ValuesOf(value, random);
  if (!handles_.empty() && random() % 2 == 0) {
    EmitBound(series, values);
  } else if (random() % 2 == 0) {
    EmitInOneCall(series, values, random);
  } else {
    Check(EmitNumbers(*FindSomehow(series, random), std::move(values), random));
  }
}

void Channel::EmitInOneCall(size_t series, const std::vector<MetricFieldValue>& values,
                            Random& random) const {
  METRICS::Metric& metric = *plan_.metric;
  const bool views = random() % 2 == 0;
  const std::vector<MetricTag> list = TagList(series);
  for (const MetricFieldValue& value : values) {
    Check(views ? metric.Emit({{"g", plan_.generation}, {"w", series}}, value)
                : metric.Emit(list, value));
  }
}

void Channel::Burst(Random& random) {
  if (IsCompatible(plan_.shape)) {
    for (int i = 0; i < kBurst; ++i) {
      EmitOn(0, random);
    }
    return;
  }
  const int value = RandomValue(random);
  const std::vector<MetricFieldValue> values = ValuesOf(value, random);
  const Item item = FindSomehow(0, random);
  const bool bound = !handles_.empty() && random() % 2 == 0;
  const bool one_call = random() % 2 == 0;
  for (int i = 0; i < kBurst; ++i) {
    accounts_[0]->Enter(value);
    if (bound) {
      EmitBound(0, values);
    } else if (one_call) {
      EmitInOneCall(0, values, random);
    } else {
      Check(item->Emit(values));
    }
  }
}

void Channel::EmitBound(size_t series, const std::vector<MetricFieldValue>& values) {
  for (size_t i = 0; i < values.size(); ++i) {
    METRICS::BoundSeries& handle = handles_[series * values.size() + i];
    const MetricFieldValue& value = values[i];
    Check(value.is_integer ? handle.Emit(value.value.integer) : handle.Emit(value.value.real));
  }
}

int Channel::RandomValue(Random& random) const {
  // A rate of whole multiples of its interval is exact.
  return accounts_[0]->interval * Between(random, 1, kMaxValue);
}

std::vector<MetricFieldValue> Channel::ValuesOf(int value, Random& random) const {
  const bool real = random() % 2 == 0;
  return real ? VerbsOf(plan_.shape, static_cast<double>(value))
              : VerbsOf(plan_.shape, static_cast<long>(value));
}

ReturnCode Channel::EmitNumbers(METRICS::MetricCollectorItem& item,
                                std::vector<MetricFieldValue> values, Random& random) const {
  if (random() % 3 == 0) {
    for (const MetricFieldValue& value : values) {
      const ReturnCode code = item.Emit(value);
      if (code != ReturnCode::kOk) {
        return code;
      }
    }
    return ReturnCode::kOk;
  }
  if (!IsRowMetric(plan_.shape) || random() % 2 == 0) {
    return item.Emit(std::move(values));
  }
  std::unordered_map<std::string, double> by_name;
  for (const MetricFieldValue& value : values) {
    by_name.emplace(value.name,
                    value.is_integer ? static_cast<double>(value.value.integer) : value.value.real);
  }
  return item.EmitMap(by_name);
}

void Channel::Check(ReturnCode code) const {
  if (code != ReturnCode::kOk) {
    report_.Violation("an emission answers " + std::to_string(static_cast<int>(code)) + ": " +
                      plan_.metric->name_);
  }
}

void Channel::EmitOnAll(Random& random) {
  for (size_t i = 0; i < plan_.series; ++i) {
    EmitOn(i, random);
  }
}

bool Channel::IsSettled() const {
  return std::all_of(accounts_.begin(), accounts_.end(),
                     [this](const auto& account) { return ledger_.IsSettled(*account); });
}

void Channel::Complain(const std::string& when) const {
  for (const std::shared_ptr<Account>& account : accounts_) {
    if (!ledger_.IsSettled(*account)) {
      report_.Violation(when + " not accounted for: " + ledger_.Difference(*account));
    }
  }
}

void Channel::CheckReceivedTotals() const {
  for (const std::shared_ptr<Account>& account : accounts_) {
    ledger_.CheckReceivedTotals(*account);
  }
}

void Channel::CloseAccounts() const {
  for (const std::shared_ptr<Account>& account : accounts_) {
    ledger_.Close(*account);
  }
}

int64_t Channel::emissions() const {
  return std::accumulate(accounts_.begin(), accounts_.end(), int64_t{0},
                         [](int64_t count, const auto& account) {
                           return count + account->count.load(std::memory_order_relaxed);
                         });
}

}  // namespace tidegate::stress

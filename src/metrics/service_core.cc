#include "metrics/service_core.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include "metrics/metric_sender_manager.h"
#include "metrics/service_options.h"
#include "tidegate/static_configer.h"
#include "tidegate/static_vendor.h"
#include "util/fork_guard.h"
#include "util/log_scope.h"
#include "util/metric_log.h"
#include "util/wait.h"

namespace METRICS {
namespace {

/// Stands for all series that are not bound. Never destroyed: static objects may emit at the end.
struct NoSeries {
  constexpr NoSeries() : series() {}
  ~NoSeries() {}
  union {
    BoundSeries series;
  };
};
NoSeries g_unbound;

bool IsBound(const SeriesSlot& slot) {
  return slot.series.load(std::memory_order_acquire) != &g_unbound.series;
}

/// What handles say that have no metric, and those of a `Metrics` that is not in service.
const std::string& NoMetric() {
  static const std::string& text = *new std::string("it was never given a metric");
  return text;
}
const std::string& NotInService() {
  static const std::string& text = *new std::string(
      "its Metrics has ended, or this is the child of a fork, without AtFork and Init");
  return text;
}

/// Deletes a slot, unless a thread of the parent may have left its parts as they are.
struct DeleteSlot {
  void operator()(OwnedMetricSlot* slot) const { Delete(slot, slot->core.get()); }
  void operator()(OwnedSeriesSlot* slot) const {
    Delete(slot, slot->metric != nullptr ? slot->metric->core.get() : nullptr);
  }
  template <class Slot>
  static void Delete(Slot* slot, const ServiceCore* core) {
    if (core == nullptr || !core->InOtherProcess()) {
      delete slot;
    }
  }
};

template <class Slot>
std::shared_ptr<Slot> NewSlot() {
  return std::shared_ptr<Slot>(new Slot(), DeleteSlot());
}

/// In a forked child: lets go of what a table of the client owns as well, which destroys it in its
/// teardown. What nobody else owns would be destroyed here, and is leaked instead.
template <class T>
void LetGoAfterFork(std::shared_ptr<T>& owned) {
  if (owned.use_count() > 1) {
    owned.reset();
  } else {
    Abandon(owned);
  }
}

template <class T>
std::shared_ptr<T> Pin(T& object) {
  return std::static_pointer_cast<T>(object.weak_from_this().lock());
}

std::string TextOf(ReturnCode code) {
  return std::string(MetricGetErrorCodeStr(code)) + " (" + std::to_string(static_cast<int>(code)) +
         ")";
}

bool SameTags(std::vector<tidegate::MetricTag> a, std::vector<tidegate::MetricTag> b) {
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const tidegate::MetricTag& x, const tidegate::MetricTag& y) {
                      return x.key == y.key && x.value == y.value;
                    });
}

bool SameNames(tidegate::TagNames a, tidegate::TagNames b) {
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  return a == b;
}

bool SameField(const tidegate::Field& a, const tidegate::Field& b) {
  return a.Name() == b.Name() && a.Type() == b.Type() && a.Bounds() == b.Bounds();
}

/// In what two metrics of one name differ; null if in nothing.
const char* DifferenceOf(const MetricDefinition& a, const MetricDefinition& b) {
  if (a.type != b.type) {
    return "another kind";
  }
  if (!SameNames(a.tag_names, b.tag_names)) {
    return "other tag names";
  }
  if (a.bounds != b.bounds) {
    return "other bounds";
  }
  if (!std::equal(a.fields.begin(), a.fields.end(), b.fields.begin(), b.fields.end(), SameField)) {
    return "other fields";
  }
  const bool same_options = SameTags(a.options.tags, b.options.tags) &&
                            a.options.max_series == b.options.max_series &&
                            a.options.estimate_percentiles == b.options.estimate_percentiles;
  return same_options ? nullptr : "other options";
}

/// The layer's form of a definition, and the bounds that it refers to.
struct LayerDefinition {
  explicit LayerDefinition(const MetricDefinition& from)
      : bounds(HistoUtil::Explicit(from.bounds)) {
    cfg.name = from.name;
    cfg.tag_names = from.tag_names;
    cfg.const_tags = from.options.tags;
    cfg.max_series = from.options.max_series;
    cfg.histo = from.type == MetricsType::kHistogram ? &bounds : nullptr;
    field_bounds.reserve(from.fields.size());
    for (const tidegate::Field& field : from.fields) {
      field_bounds.push_back(HistoUtil::Explicit(field.Bounds()));
      const bool histogram = field.Type() == MetricsType::kHistogram;
      cfg.fields.push_back(
          {field.Name(), field.Type(), histogram ? &field_bounds.back() : nullptr});
    }
  }
  LayerDefinition(const LayerDefinition&) = delete;
  LayerDefinition& operator=(const LayerDefinition&) = delete;

  HistoUtil bounds;
  std::vector<HistoUtil> field_bounds;
  MetricInstanceCfg cfg;
};

}  // namespace

SeriesSlot g_no_series{&g_unbound.series};

const std::string& ErrorOf(const MetricSlot* slot) {
  if (slot == nullptr) {
    return NoMetric();
  }
  if (slot->metric.load(std::memory_order_acquire) != nullptr) {
    return MetricParts::NoopStr();
  }
  const Failure& failure = static_cast<const OwnedMetricSlot*>(slot)->failure;
  return failure.code.load() == ReturnCode::kObjectExit ? NotInService() : failure.text;
}

const std::string& ErrorOf(const SeriesSlot& slot) {
  if (&slot == &g_no_series) {
    return NoMetric();
  }
  if (IsBound(slot)) {
    return MetricParts::NoopStr();
  }
  const Failure& failure = static_cast<const OwnedSeriesSlot&>(slot).failure;
  return failure.code.load() == ReturnCode::kObjectExit ? NotInService() : failure.text;
}

ReturnCode RefusalOf(const MetricSlot* slot) {
  return slot == nullptr ? ReturnCode::kNotSupported
                         : static_cast<const OwnedMetricSlot*>(slot)->failure.code.load();
}

std::shared_ptr<SeriesSlot> BindSlot(const std::shared_ptr<MetricSlot>& slot,
                                     BoundSeries::Tags tags, const std::string& name,
                                     MetricsType type) {
  const auto metric = std::static_pointer_cast<OwnedMetricSlot>(slot);
  if (metric != nullptr && metric->core != nullptr) {
    return metric->core->Bind(metric, std::move(tags), name, type);
  }
  auto failed = NewSlot<OwnedSeriesSlot>();
  failed->failure.code.store(RefusalOf(slot.get()));
  failed->failure.text = ErrorOf(slot.get());
  return failed;
}

OwnedSeriesSlot::OwnedSeriesSlot() : SeriesSlot{&g_unbound.series} {}

OwnedSeriesSlot::~OwnedSeriesSlot() {
  if (listed) {
    metric->core->Unlist(*this);
  }
}

void ServiceCore::Start() {
  NoMetric(), NotInService();  // one-time initialisations, which no fork may interrupt
  const WriteGuard guard(mutex_);
  g_metricsLogLevel.store(static_cast<uint8_t>(options_.log_level), std::memory_order_relaxed);
  StartClient();
}

void ServiceCore::StartClient() {
  process_ = ::getpid();
  std::string reason = ReasonAgainst(options_);
  if (!reason.empty()) {
    Fail(std::move(reason));
    return;
  }
  HandleSigpipe();
  const int interval = static_cast<int>(options_.interval.count());
  CoreInitCfg core;
  core.max_total_series = options_.max_series;
  ReturnCode code =
      client_.Init(std::make_unique<tidegate::StaticConfiger>(interval),
                   std::make_unique<tidegate::StaticVendor>(tidegate::StaticVendor::Options{
                       options_.socket_path, {}, {}, options_.service, options_.self_monitor}),
                   nullptr, core);
  MetricRegistry* registry = nullptr;
  if (code == ReturnCode::kOk) {
    MetricRegistryCfg cfg;
    cfg.prefix = Prefix();
    cfg.tags = options_.tags;
    cfg.tenant = options_.tenant;
    cfg.flush_interval = interval;
    code = client_.CreateRegistry(registry, std::move(cfg));
  }
  if (code != ReturnCode::kOk) {
    client_.Exit();
    Fail(TextOf(code));
    return;
  }
  registry_ = Pin(*registry);
  error_.clear();
  state_.store(State::kServing, std::memory_order_release);
}

void ServiceCore::Fail(std::string reason) {
  error_ = std::move(reason);
  state_.store(State::kFailed, std::memory_order_release);
  METRICS_LOG_ERROR("Metrics of service[%s] not in service: %s\n", options_.service.c_str(),
                    error_.c_str());
}

void ServiceCore::HandleSigpipe() const {
  struct sigaction now {};
  if (::sigaction(SIGPIPE, nullptr, &now) != 0 || (now.sa_flags & SA_SIGINFO) != 0 ||
      now.sa_handler != SIG_DFL) {
    return;
  }
  if (options_.ignore_sigpipe) {
    ::signal(SIGPIPE, SIG_IGN);
  } else {
    METRICS_LOG_WARN("SIGPIPE ends service[%s] when its agent goes away\n",
                     options_.service.c_str());
  }
}

std::string ServiceCore::Error() const {
  const WriteGuard guard(mutex_);
  switch (state_.load()) {
    case State::kServing:
      break;
    case State::kFailed:
      return error_;
    case State::kEnded:
    case State::kForked:
      return NotInService();
  }
  return {};
}

std::string ServiceCore::DebugString() const {
  const WriteGuard guard(mutex_);
  return InService() ? client_.DebugString() : "not in service\n";
}

OwnedMetricSlot* ServiceCore::FindSlot(const std::string& name) const {
  OwnedMetricSlot* slot = metrics_.load(std::memory_order_acquire);
  while (slot != nullptr && slot->definition.name != name) {
    slot = slot->next.load(std::memory_order_acquire);
  }
  return slot;
}

std::shared_ptr<MetricSlot> ServiceCore::Make(MetricDefinition definition) {
  auto slot = NewSlot<OwnedMetricSlot>();
  slot->definition = std::move(definition);
  const std::string& name = slot->definition.name;
  std::string& why = slot->failure.text;
  ReturnCode code = ReturnCode::kOk;
  const WriteGuard guard(mutex_);
  const State state = state_.load();
  if (state != State::kServing) {
    why = error_;
    slot->failure.code.store(state == State::kFailed ? ReturnCode::kNullptr
                                                     : ReturnCode::kObjectExit);
    return slot;
  }
  if (OwnedMetricSlot* const found = FindSlot(name)) {
    const char* const difference = DifferenceOf(found->definition, slot->definition);
    if (difference == nullptr) {
      return found->owned;
    }
    code = ReturnCode::kObjectExisted;
    why = std::string("there is a metric of this name with ") + difference;
  } else {
    code = MakeMetric(*slot, why);
  }
  if (code == ReturnCode::kOk || code == ReturnCode::kObjectBlocked) {
    slot->core = shared_from_this();
    slot->owned = slot;
    slot->next.store(metrics_.load());
    metrics_.store(slot.get(), std::memory_order_release);
  }
  if (code != ReturnCode::kOk) {
    slot->failure.code.store(code);
    METRICS_LOG_ERROR("Metric[%s] of service[%s] does nothing: %s\n", name.c_str(),
                      options_.service.c_str(), why.c_str());
  }
  return slot;
}

ReturnCode ServiceCore::MakeMetric(OwnedMetricSlot& slot, std::string& why) {
  const MetricDefinition& definition = slot.definition;
  if (definition.type == MetricsType::kMultiField && definition.fields.empty()) {
    why = "a row without fields";
    return ReturnCode::kInvalidParamNumber;
  }
  LayerDefinition layer(definition);
  const bool row = definition.type == MetricsType::kMultiField;
  MetricRegistry::Refusal refusal;
  Metric* const metric =
      registry_->Make({row ? MetricCoItemType::kCoItemField : MetricCoItemType::kCoItemSuffix,
                       std::move(layer.cfg)},
                      refusal);
  if (metric == nullptr) {
    why = refusal.subject + (refusal.subject.empty() ? "" : ": ") + TextOf(refusal.code);
    return refusal.code;
  }
  metric->SetUseCkms(definition.options.estimate_percentiles);
  slot.pin = Pin(*metric);
  slot.metric.store(metric, std::memory_order_release);
  return ReturnCode::kOk;
}

std::shared_ptr<SeriesSlot> ServiceCore::Bind(const std::shared_ptr<OwnedMetricSlot>& metric,
                                              BoundSeries::Tags tags, const std::string& name,
                                              MetricsType type) {
  auto slot = NewSlot<OwnedSeriesSlot>();
  slot->tags = std::move(tags);
  slot->name = name;
  slot->type = type;
  slot->metric = metric;
  const WriteGuard guard(mutex_);
  ReturnCode code = ReturnCode::kObjectExit;
  if (InService()) {
    code = BindSeries(*slot);
  }
  if (code != ReturnCode::kOk) {
    slot->failure.code.store(code);
    slot->failure.text = TextOf(code);
  }
  OwnedSeriesSlot* const first = series_.load();
  slot->next.store(first);
  if (first != nullptr) {
    first->previous = slot.get();
  }
  slot->listed = true;
  series_.store(slot.get(), std::memory_order_release);
  return slot;
}

ReturnCode ServiceCore::BindSeries(OwnedSeriesSlot& slot) {
  if (slot.metric->metric.load() == nullptr) {
    return slot.metric->failure.code.load();
  }
  const ReturnCode code = slot.bound.Bind(slot.metric->pin.get(), slot.tags, slot.name, slot.type);
  if (code == ReturnCode::kOk) {
    slot.series.store(&slot.bound, std::memory_order_release);
  }
  return code;
}

void ServiceCore::Unlist(OwnedSeriesSlot& slot) {
  const WriteGuard guard(mutex_);
  OwnedSeriesSlot* const next = slot.next.load();
  if (next != nullptr) {
    next->previous = slot.previous;
  }
  (slot.previous != nullptr ? slot.previous->next : series_).store(next);
}

void ServiceCore::MakeMissing(bool with_reasons) {
  for (OwnedMetricSlot* slot = metrics_.load(); slot != nullptr; slot = slot->next.load()) {
    std::string why;
    if (slot->metric.load() == nullptr) {
      const ReturnCode code = MakeMetric(*slot, why);
      if (code != ReturnCode::kOk && with_reasons) {
        slot->failure.code.store(code);
        slot->failure.text = std::move(why);
      }
    }
  }
  for (OwnedSeriesSlot* slot = series_.load(); slot != nullptr; slot = slot->next.load()) {
    if (!IsBound(*slot)) {
      const ReturnCode code = BindSeries(*slot);
      if (code != ReturnCode::kOk && with_reasons) {
        slot->failure.code.store(code);
        slot->failure.text = TextOf(code);
      }
    }
  }
}

bool ServiceCore::InOtherProcess() const { return process_ != 0 && ::getpid() != process_; }

void ServiceCore::CloseSlots() {
  for (OwnedSeriesSlot* slot = series_.load(); slot != nullptr; slot = slot->next.load()) {
    slot->failure.code.store(ReturnCode::kObjectExit);
    slot->series.store(&g_unbound.series);
  }
  for (OwnedMetricSlot* slot = metrics_.load(); slot != nullptr; slot = slot->next.load()) {
    slot->failure.code.store(ReturnCode::kObjectExit);
    slot->metric.store(nullptr);
  }
}

void ServiceCore::AtFork() METRICS_NO_THREAD_SAFETY {
  if (!InOtherProcess()) {
    return;
  }
  process_ = ::getpid();
  const bool half_changed = RepairGuarded(mutex_, error_, registry_);
  CloseSlots();
  OwnedSeriesSlot* previous = nullptr;
  for (OwnedSeriesSlot* slot = series_.load(); slot != nullptr; slot = slot->next.load()) {
    slot->previous = std::exchange(previous, slot);
    Abandon(slot->bound);
  }
  for (OwnedMetricSlot* slot = metrics_.load(); slot != nullptr; slot = slot->next.load()) {
    if (half_changed) {
      Abandon(slot->pin);
    } else {
      LetGoAfterFork(slot->pin);
    }
  }
  LetGoAfterFork(registry_);
  client_.AtFork();
  state_.store(State::kForked, std::memory_order_release);
}

bool ServiceCore::Init() {
  const ThreadsEndLogScope lines;
  const WriteGuard guard(mutex_);
  if (state_.load() == State::kForked) {
    StartClient();
    if (InService()) {
      MakeMissing(true);
    }
  }
  return InService();
}

void ServiceCore::AwaitInterval() const {
  constexpr uint32_t kMostTurns = 4000;  // less than a second
  for (uint32_t turn = 0; turn < kMostTurns && client_.sender_manager_ != nullptr &&
                          client_.sender_manager_->KnownInterval(options_.tenant) == 0;
       ++turn) {
    PauseInWait(turn);
  }
}

void ServiceCore::Stop() {
  if (InOtherProcess()) {
    AtFork();
    return;
  }
  {
    const WriteGuard guard(mutex_);
    if (!InService()) {
      return;
    }
    state_.store(State::kEnded, std::memory_order_release);
    CloseSlots();
  }
  AwaitInterval();
  client_.FlushAndExit();
}

void ServiceCore::LetSlotsGo() {
  std::shared_ptr<OwnedMetricSlot> slot;  // dies outside of the guard
  do {
    slot.reset();
    const WriteGuard guard(mutex_);
    OwnedMetricSlot* const first = metrics_.load();
    if (first != nullptr) {
      metrics_.store(first->next.load());
      slot = std::move(first->owned);
    }
  } while (slot != nullptr);
}

ReturnCode ServiceCore::Block() {
  const WriteGuard guard(mutex_);
  return InService() ? client_.Block(Prefix(), options_.tenant) : ReturnCode::kObjectExit;
}

ReturnCode ServiceCore::UnBlock() {
  const WriteGuard guard(mutex_);
  if (!InService()) {
    return ReturnCode::kObjectExit;
  }
  const ReturnCode code = client_.UnBlock(Prefix(), options_.tenant);
  MakeMissing(false);
  return code;
}

}  // namespace METRICS

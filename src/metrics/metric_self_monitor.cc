#include "metrics/metric_self_monitor.h"

#include <cassert>
#include <utility>

#include "metrics/client_parts.h"
#include "metrics/impl/metric_impl.h"
#include "metrics/metric.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_data.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_registry.h"
#include "metrics/metric_sender.h"
#include "metrics/metric_sender_manager.h"
#include "util/fork_guard.h"
#include "util/metric_clock_util.h"
#include "util/metric_log.h"
#include "util/sdk_version.h"
#include "util/within_memory.h"

namespace METRICS {
namespace {

constexpr char kTenant[] = "inf.metrics";
constexpr char kPrefix[] = "inf.tidegate";
constexpr char kVersionTag[] = "sdk_version";
constexpr int kSliceMillis = 5;

MetricRegistryCfg RegistryCfg(int flush_interval) {
  MetricRegistryCfg cfg;
  cfg.prefix = kPrefix;
  cfg.tags = {{"component", "quelltd"}, {"language", "cpp"}};
  cfg.tenant = kTenant;
  cfg.flush_interval = flush_interval;
  return cfg;
}

/// One number under the empty suffix.
std::vector<MetricFieldValue> Nameless(MetricsType type, long number) {
  MetricFieldValue value = WithSuffix("");
  value.type = type;
  value.value.integer = number;
  return {std::move(value)};
}

ReturnCode MakeMetric(MetricRegistry& registry, const char* name,
                      std::vector<std::string> tag_names, std::vector<MetricFieldCfg> fields,
                      std::atomic<Metric*>& target) {
  MetricInstanceCfg cfg;
  cfg.name = name;
  cfg.tag_names = std::move(tag_names);
  cfg.fields = std::move(fields);
  Metric* metric = nullptr;
  const ReturnCode code = registry.CreateMetric(metric, cfg);
  target.store(metric, std::memory_order_release);
  return code;
}

void LogIfFailed(ReturnCode code) {
  if (code != ReturnCode::kOk) {
    METRICS_LOG_WARN("%s\n", MetricGetErrorCodeStr(code));
  }
}

}  // namespace

MetricSelfMonitor::MetricSelfMonitor(ClientParts* client) : client_(client) {}

MetricSelfMonitor::~MetricSelfMonitor() {
  Exit();
  client_ = nullptr;
  METRICS_LOG_DEBUG("MetricSelfMonitor Destructor.\n");
}

ReturnCode MetricSelfMonitor::Start() {
  ReturnCode code = MakeMetrics();
  if (registry_pin_ != nullptr) {
    metric_pins_ = registry_pin_->GetAllMetric();
  }
  if (code != ReturnCode::kOk) {
    METRICS_LOG_CODE(code);
    return code;
  }
  BindOwnSender();
  interval_ = client_->configer_->monitor_interval_;
  if (state_.load() != MetricState::INIT) {
    return ReturnCode::kOk;
  }
  state_.exchange(MetricState::READY);
  code = StartThread("ms_monitor", &MetricSelfMonitor::ClickLoop, this, client_->metric_factory_,
                     interval_);
  if (code != ReturnCode::kOk) {
    state_.store(MetricState::INIT);
    METRICS_LOG_CODE(code);
    return code;
  }
  METRICS_LOG_INFO("Self Monitor started\n");
  return ReturnCode::kOk;
}

ReturnCode MetricSelfMonitor::MakeMetrics() {
  ReturnCode code = client_->metric_factory_->CreateRegistry(
      registry_, RegistryCfg(client_->configer_->monitor_flush_interval_));
  if (code == ReturnCode::kOk) {
    registry_pin_ = std::static_pointer_cast<MetricRegistry>(registry_->weak_from_this().lock());
    code = MakeVersion();
  }
  if (code == ReturnCode::kOk) {
    code = MakeMetric(*registry_, "metric", {"metric_name"},
                      {{"emit.success", MetricsType::kRate},
                       {"emit.fail", MetricsType::kRate},
                       {"cache.series", MetricsType::kGauge},
                       {"cache.mem", MetricsType::kGauge}},
                      statistic_.metric_stat);
  }
  if (code == ReturnCode::kOk) {
    code = MakeMetric(*registry_, "sender", {"tenant", "cause"},
                      {{"bytes", MetricsType::kRate},
                       {"metrics", MetricsType::kRate},
                       {"series", MetricsType::kRate}},
                      statistic_.sender_stat);
  }
  if (code == ReturnCode::kOk) {
    code = MakeLatency();
  }
  if (code == ReturnCode::kOk) {
    code = MakeMetric(*registry_, "sender.fail", {"tenant", "status"}, {}, statistic_.sender_fail);
  }
  return code;
}

Metric* MetricSelfMonitor::Standing(const std::atomic<Metric*>& target) {
  Metric* const metric = target.load(std::memory_order_acquire);
  const bool removed = metric == nullptr || metric->impl_->state_.load(std::memory_order_acquire) ==
                                                MetricState::SHUTDOWN;
  return removed ? nullptr : metric;
}

/// Nothing before the metric is made and after it is removed.
void MetricSelfMonitor::EmitOn(const std::atomic<Metric*>& target,
                               const std::vector<tidegate::MetricTag>& tags, MetricsType type,
                               long number) {
  Metric* const metric = Standing(target);
  if (metric != nullptr) {
    LogIfFailed(metric->WithTags(tags)->Emit(Nameless(type, number)));
  }
}

ReturnCode MetricSelfMonitor::MakeVersion() {
  const ReturnCode code = MakeMetric(*registry_, "version", {kVersionTag}, {}, statistic_.version);
  return code == ReturnCode::kOk ? BindVersion() : code;
}

ReturnCode MetricSelfMonitor::BindVersion() {
  std::shared_ptr<MetricCollectorItem> item =
      InitSelfMonitorItem(Standing(statistic_.version), {{kVersionTag, kSdkVersion}});
  if (item == nullptr || item == statistic_.version_item) {
    return ReturnCode::kOk;
  }
  const ReturnCode code = item->Emit(Nameless(MetricsType::kGauge, 1));
  if (code == ReturnCode::kOk) {
    statistic_.version_data = item->Fields()[""];
    statistic_.version_item = std::move(item);
  }
  return code;
}

ReturnCode MetricSelfMonitor::MakeLatency() {
  // Marked before any sender can see it.
  std::atomic<Metric*> made{nullptr};
  const ReturnCode code = MakeMetric(*registry_, "sender.latency", {"tenant", "name"}, {}, made);
  Metric* const metric = made.load();
  if (metric != nullptr) {
    metric->SetMultiFieldSummary(true);
  }
  statistic_.sender_latency.store(metric, std::memory_order_release);
  return code;
}

void MetricSelfMonitor::BindOwnSender() {
  MetricSender* sender = nullptr;
  LogIfFailed(client_->sender_manager_->GetSender(sender, kTenant));
  if (sender != nullptr) {
    sender->InitStat();
  }
}

void MetricSelfMonitor::ClickLoop(std::shared_ptr<MetricFactory> factory, int interval) {
  assert(statistic_.version_data != nullptr);
  EnterThread("ms_monitor");
  const long heartbeat = 1;
  while (Running()) {
    bool in_service = true;
    RunWithinMemory("ms_monitor", "a round", [&] {
      LogIfFailed(BindVersion());  // the series may have been erased meanwhile
      statistic_.version_data->Emit(heartbeat);
      statistic_.version_item->Refresh();
      in_service = EmitForMetric(factory);
    });
    if (!in_service || !SyncMilliStepSleep(interval, kSliceMillis, state_)) {
      return;
    }
  }
}

bool MetricSelfMonitor::EmitForMetric(std::shared_ptr<MetricFactory>& factory) {
  assert(factory != nullptr);
  if (factory->state_.load(std::memory_order_relaxed) != MetricState::READY) {
    return false;
  }
  Metric* const stat_metric = Standing(statistic_.metric_stat);
  if (stat_metric == nullptr) {
    if (!std::exchange(told_removal_, true)) {
      METRICS_LOG_WARN("Self Monitor: its metrics have been removed, nothing is reported.\n");
    }
    return true;
  }
  for (const std::shared_ptr<MetricRegistry>& registry : factory->GetAllRegistry()) {
    for (const std::shared_ptr<Metric>& metric : registry->GetAllMetric()) {
      LogIfFailed(metric->EmitStat(stat_metric));
    }
  }
  return true;
}

std::shared_ptr<MetricCollectorItem> MetricSelfMonitor::InitSelfMonitorItem(
    Metric* metric, std::vector<tidegate::MetricTag>&& tags) const {
  return metric == nullptr ? nullptr : metric->WithTags(tags);
}

std::shared_ptr<MetricBasicData> MetricSelfMonitor::InitSenderMonitorData(
    std::vector<tidegate::MetricTag>&& tags, const std::string& field,
    std::shared_ptr<MetricCollectorItem>& item) const {
  if (item == nullptr) {
    item = InitSelfMonitorItem(Standing(statistic_.sender_stat), std::move(tags));
    if (item != nullptr) {
      item->Refresh();  // its cells are fed directly, which the expiry does not see
    }
  }
  return item == nullptr ? nullptr : item->Fields()[field];
}

void MetricSelfMonitor::Exit() {
  if (!Running()) {
    return;
  }
  StopThread();
  LogIfFailed(client_->metric_factory_->RemoveRegistry(kPrefix, kTenant));
  registry_ = nullptr;
  statistic_.version_data.reset();
  statistic_.version_item.reset();
  statistic_.metric_stat.store(nullptr);
  statistic_.sender_stat.store(nullptr);
  statistic_.sender_fail.store(nullptr);
  METRICS_LOG_INFO("Self Monitor stoped.\n");
}

void MetricSelfMonitor::AtFork() {
  if (Running()) {
    if (!StopThread()) {
      Abandon(statistic_.version_data);
      Abandon(statistic_.version_item);
    }
    client_ = nullptr;
  }
  METRICS_LOG_INFO("Self Monitor AtFork.\n");
}

void MetricSelfMonitor::EmitForSenderLatency(const std::string& tenant, const std::string& name,
                                             long value) {
  EmitOn(statistic_.sender_latency, {{"tenant", tenant}, {"name", name}}, MetricsType::kTimer,
         value);
}

void MetricSelfMonitor::EmitForSenderFial(const std::string& tenant, const std::string& status) {
  EmitOn(statistic_.sender_fail, {{"tenant", tenant}, {"status", status}}, MetricsType::kRate, 1);
}

void MetricSelfMonitor::WarnOfIntervals(const std::string& tenant, int interval) {
  for (const std::shared_ptr<MetricRegistry>& registry :
       client_->metric_factory_->GetAllRegistry()) {
    if (registry->Tenant() == tenant) {
      registry->WarnOfInterval(interval);
    }
  }
}

}  // namespace METRICS

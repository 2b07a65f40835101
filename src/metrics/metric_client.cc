#include "metrics/metric_client.h"

#include <unistd.h>

#include <optional>
#include <utility>

#include "metrics/metric_collector_factory.h"
#include "metrics/metric_encoder.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_sender_manager.h"
#include "util/fork_guard.h"
#include "util/metric_log.h"

namespace METRICS {
namespace {

/// Runs all one-time initialisations of the library while there is one thread: one that a fork
/// interrupts on another thread would never end in the child.
void RunOneTimeInitialisations() {
  DummyItem();
  MetricCollectorItem::NoopDataPtr();
  MetricCollectorItem::NoopFields();
  Metric::NoopHistogram();
  Metric::NoopFieldInfo();
  Metric::NoopStr();
  GetRegistryMetricLimit();
  MetricEncoder::PrepareSuffixTables();
}

/// Puts a new object into `member`, after the old one is gone. False, with a line, when there is
/// none to be had.
template <class Member, class... Args>
bool MakeMember(Member& member, Args&&... args) {
  member.reset();
  member.reset(new (std::nothrow) typename Member::element_type(std::forward<Args>(args)...));
  if (member == nullptr) {
    METRICS_LOG_CODE(ReturnCode::kNewObjectFail);
  }
  return member != nullptr;
}

}  // namespace

MetricClient::MetricClient() = default;

MetricClient::~MetricClient() {
  Exit();
  METRICS_LOG_DEBUG("MetricClient Destructor.\n");
}

ReturnCode MetricClient::Init(tidegate::MConfigerImplBase* configer_impl,
                              tidegate::VendorInterface* vendor,
                              tidegate::ServiceDiscoveryBase* discovery, const CoreInitCfg& cfg) {
  RunOneTimeInitialisations();
  init_pid_ = ::getpid();
  if (!MakeMember(collector_factory_, this, cfg.max_total_series) || !MakeMember(configer_, this) ||
      !MakeMember(metric_factory_, this) || !MakeMember(sender_manager_, this)) {
    return ReturnCode::kNewObjectFail;
  }
  const ReturnCode code = configer_->Init(configer_impl, vendor, discovery, cfg);
  if (code != ReturnCode::kOk) {
    METRICS_LOG_WARN("%s\n", MetricGetErrorCodeStr(code));
  }
  return ReturnCode::kOk;
}

ReturnCode MetricClient::CreateRegistry(MetricRegistry*& registry, MetricRegistryCfg cfg) {
  if (metric_factory_->GetRegistry(registry, cfg.prefix, cfg.tenant) !=
      ReturnCode::kObjectNotExisted) {
    return ReturnCode::kOk;
  }
  return metric_factory_->CreateRegistry(registry, std::move(cfg));
}

MetricClient::CreateMetricResult MetricClient::CreateMetric(MetricRegistryCfg registry_cfg,
                                                            MetricInstanceCfg metric_cfg) {
  MetricRegistry* registry = nullptr;
  ReturnCode code = CreateRegistry(registry, std::move(registry_cfg));
  if (code != ReturnCode::kOk) {
    return {nullptr, code};
  }
  Metric* metric = nullptr;
  if (registry->GetMetric(metric, metric_cfg.name) == ReturnCode::kObjectNotExisted) {
    code = registry->CreateMetric(metric, metric_cfg);
  }
  return {metric, code};
}

void MetricClient::ShutDownFactories() {
  if (metric_factory_ != nullptr) {
    metric_factory_->state_.store(MetricState::SHUTDOWN, std::memory_order_relaxed);
  }
  if (collector_factory_ != nullptr) {
    collector_factory_->state_.store(MetricState::SHUTDOWN, std::memory_order_relaxed);
  }
}

void MetricClient::ReleaseFactories() {
  // Each member is null before its object goes.
  std::exchange(metric_factory_, nullptr).reset();
  std::exchange(collector_factory_, nullptr).reset();
}

ReturnCode MetricClient::Exit() {
  ShutDownFactories();
  // The threads end with the sender manager, so that nobody reads the environment objects when
  // the configer goes.
  std::exchange(sender_manager_, nullptr).reset();
  std::exchange(configer_, nullptr).reset();
  ReleaseFactories();
  return ReturnCode::kOk;
}

void MetricClient::FlushAndExit() {
  sender_manager_->FlushAndExit();
  ShutDownFactories();
  std::exchange(configer_, nullptr).reset();
  ReleaseFactories();
}

void MetricClient::AtFork() {
  std::optional<ForkTeardown> teardown;
  if (::getpid() != init_pid_) {
    teardown.emplace();
    // Ahead of everything: registries below reach into the collector factory as they go.
    sender_manager_->RepairAfterFork();
    metric_factory_->RepairAfterFork();
    collector_factory_->RepairAfterFork();
  }
  sender_manager_->AtFork();
  metric_factory_->AtFork();
  collector_factory_->AtFork();
  std::exchange(sender_manager_, nullptr).reset();
  std::exchange(configer_, nullptr).reset();
  ReleaseFactories();
}

}  // namespace METRICS

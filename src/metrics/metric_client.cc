#include "metrics/metric_client.h"

#include <unistd.h>

#include <cassert>
#include <optional>
#include <utility>

#include "metrics/cell_kinds.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_expire_checker.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_self_monitor.h"
#include "metrics/metric_sender_manager.h"
#include "metrics/series_census.h"
#include "util/fork_guard.h"
#include "util/log_scope.h"
#include "util/metric_log.h"
#include "util/wait.h"

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
  NamesOf(MetricsType::kTimer);
}

/// Whether this process is not the one that called `Init`; false where none did.
bool IsForkedChildOf(pid_t process) { return process != 0 && ::getpid() != process; }

/// Puts a new object into `member`, after the old one is gone. False, with a line, when there is
/// none to be had.
template <class Member, class... Args>
bool MakeMember(Member& member, Args&&... args) {
  member.reset();
  try {
    member.reset(new typename Member::element_type(std::forward<Args>(args)...));
  } catch (const std::bad_alloc&) {
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

ReturnCode MetricClient::Init(std::unique_ptr<tidegate::MConfigerImplBase> configer,
                              std::unique_ptr<tidegate::VendorInterface> vendor,
                              std::unique_ptr<tidegate::ServiceDiscoveryBase> discovery,
                              const CoreInitCfg& cfg) {
  assert(configer != nullptr);
  return MakeParts(cfg) ? Begin(configer.release(), vendor.release(), discovery.release(), cfg)
                        : ReturnCode::kNewObjectFail;
}

ReturnCode MetricClient::Init(tidegate::MConfigerImplBase* configer_impl,
                              tidegate::VendorInterface* vendor,
                              tidegate::ServiceDiscoveryBase* discovery, const CoreInitCfg& cfg) {
  assert(configer_impl != nullptr);
  return MakeParts(cfg) ? Begin(configer_impl, vendor, discovery, cfg) : ReturnCode::kNewObjectFail;
}

bool MetricClient::MakeParts(const CoreInitCfg& cfg) {
  assert(metric_factory_ == nullptr);
  RunOneTimeInitialisations();
  init_pid_ = ::getpid();
  return MakeMember(collector_factory_, this, cfg.max_total_series) &&
         MakeMember(configer_, this) && MakeMember(expire_checker_, this) &&
         MakeMember(metric_factory_, this) && MakeMember(self_monitor_, this) &&
         MakeMember(sender_manager_, this) && MakeMember(growth_);
}

ReturnCode MetricClient::Begin(tidegate::MConfigerImplBase* configer,
                               tidegate::VendorInterface* vendor,
                               tidegate::ServiceDiscoveryBase* discovery, const CoreInitCfg& cfg) {
  const LogScope lines;  // a sink that calls this client finds it whole
  sender_reports_ = self_monitor_.get();
  const ReturnCode code = configer_->Init(configer, vendor, discovery, cfg);
  if (code != ReturnCode::kOk) {
    METRICS_LOG_WARN("%s\n", MetricGetErrorCodeStr(code));
  }
  if (!StartThreads()) {
    Exit();
    return ReturnCode::kAllocCollectorError;
  }
  return ReturnCode::kOk;
}

bool MetricClient::StartThreads() {
  // What else fails there leaves a client in service.
  constexpr ReturnCode kNoThread = ReturnCode::kAllocCollectorError;
  return (!configer_->enable_monitor_ || self_monitor_->Start() != kNoThread) &&
         (!configer_->enable_expire_ ||
          expire_checker_->Start(configer_->expire_seconds_) != kNoThread);
}

ReturnCode MetricClient::CreateRegistry(MetricRegistry*& registry, MetricRegistryCfg cfg) {
  if (metric_factory_ == nullptr) {
    registry = nullptr;
    return ReturnCode::kNullptr;
  }
  if (metric_factory_->GetRegistry(registry, cfg.prefix, cfg.tenant) !=
      ReturnCode::kObjectNotExisted) {
    return ReturnCode::kOk;
  }
  return IsWhole() ? metric_factory_->CreateRegistry(registry, std::move(cfg))
                   : ReturnCode::kNullptr;
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

ReturnCode MetricClient::RemoveRegistry(const std::string& prefix, const std::string& tenant) {
  return metric_factory_ == nullptr ? ReturnCode::kNullptr
                                    : metric_factory_->RemoveRegistry(prefix, tenant);
}

ReturnCode MetricClient::Block(const std::string& prefix, const std::string& tenant) {
  return metric_factory_ == nullptr ? ReturnCode::kNullptr : metric_factory_->Block(tenant, prefix);
}

ReturnCode MetricClient::UnBlock(const std::string& prefix, const std::string& tenant) {
  return metric_factory_ == nullptr ? ReturnCode::kNullptr
                                    : metric_factory_->UnBlock(tenant, prefix);
}

void MetricClient::ShutDownFactories() {
  if (metric_factory_ != nullptr) {
    metric_factory_->state_.store(MetricState::SHUTDOWN, std::memory_order_relaxed);
  }
  if (collector_factory_ != nullptr) {
    collector_factory_->state_.store(MetricState::SHUTDOWN, std::memory_order_relaxed);
  }
}

void MetricClient::ReleaseServices() {
  // The threads end with their owners, so that nobody reads the environment objects when the
  // configer goes.
  sender_reports_ = nullptr;
  std::exchange(self_monitor_, nullptr).reset();
  std::exchange(expire_checker_, nullptr).reset();
  std::exchange(configer_, nullptr).reset();
}

void MetricClient::ReleaseFactories() {
  // Each member is null before its object goes.
  std::exchange(metric_factory_, nullptr).reset();
  std::exchange(collector_factory_, nullptr).reset();
  std::exchange(growth_, nullptr).reset();
}

ReturnCode MetricClient::Exit() {
  const ThreadsEndLogScope lines;
  const NoCancellation uncancelled;  // destructors join threads and close sockets
  if (IsForkedChildOf(init_pid_)) {
    AtFork();
    return ReturnCode::kOk;
  }
  ShutDownFactories();
  std::exchange(sender_manager_, nullptr).reset();
  ReleaseServices();
  ReleaseFactories();
  return ReturnCode::kOk;
}

void MetricClient::FlushAndExit() {
  const ThreadsEndLogScope lines;
  const NoCancellation uncancelled;  // as in `Exit`
  if (IsForkedChildOf(init_pid_)) {
    AtFork();
    return;
  }
  if (sender_manager_ != nullptr) {
    sender_manager_->FlushAndExit();
  }
  ShutDownFactories();
  ReleaseServices();
  ReleaseFactories();
}

void MetricClient::AtFork() {
  const ThreadsEndLogScope lines;
  std::optional<ForkTeardown> teardown;
  if (IsForkedChildOf(init_pid_)) {
    teardown.emplace();
  }
  // Any member may be null: it has ended, or a thread of the parent was ending it.
  const auto with = [](const auto& member, auto call) {
    if (member != nullptr) {
      call(*member);
    }
  };
  const auto repair = [](auto& member) { member.RepairAfterFork(); };
  const auto forget = [](auto& member) { member.AtFork(); };
  if (teardown.has_value()) {
    // Before everything: registries below reach into the collector factory as they go.
    with(sender_manager_, repair);
    with(metric_factory_, repair);
    with(collector_factory_, repair);
  }
  with(sender_manager_, forget);
  if (configer_ != nullptr && configer_->enable_monitor_) {
    with(self_monitor_, forget);
  }
  if (configer_ != nullptr && configer_->enable_expire_) {
    with(expire_checker_, forget);
  }
  with(metric_factory_, forget);
  with(collector_factory_, forget);
  std::exchange(sender_manager_, nullptr).reset();
  std::exchange(configer_, nullptr).reset();
  sender_reports_ = nullptr;
  std::exchange(self_monitor_, nullptr).reset();
  std::exchange(expire_checker_, nullptr).reset();
  ReleaseFactories();
}

}  // namespace METRICS

#include "metrics/metric_sender.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <limits>
#include <utility>

#include "metrics/metric_client.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_encoder.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_self_monitor.h"
#include "util/fork_guard.h"
#include "util/metric_clock_util.h"
#include "util/metric_log.h"
#include "util/within_memory.h"

namespace METRICS {
namespace {

constexpr int kMillisPerSecond = 1000;
constexpr int kPollMillis = 200;
constexpr int kMaxInterval = std::numeric_limits<int32_t>::max() / kMillisPerSecond;
constexpr int kIntervalTries = 3;

using std::chrono::steady_clock;

void AddTo(const AtomicSharedPtr<MetricBasicData>& cell, long amount) {
  const std::shared_ptr<MetricBasicData> data = cell.Load();
  if (data != nullptr) {
    data->Emit(amount);
  }
}

}  // namespace

MetricSender::MetricSender(const std::string& tenant, MetricClient* client)
    : PacketSender(client->configer_->pre_encode_tags_),
      tenant_(tenant),
      client_(client),
      collector_factory_(client->collector_factory_),
      encoder_(std::make_shared<MetricEncoder>(this, tenant)),
      monitor_enabled_(client->configer_->enable_monitor_) {
  // Last: the thread touches nothing virtual until a leaf class's `Init` lets it go.
  StartThread("ms_sender", &MetricSender::Send, this, tenant);
}

MetricSender::~MetricSender() { client_ = nullptr; }

ReturnCode MetricSender::SocketInit() { return ReturnCode::kOk; }

int MetricSender::AdjustSleepStep(int interval_ms) {
  constexpr int kShortPeriod = 6;
  constexpr int kShortStep = 5;
  return interval_ms < kShortPeriod ? kShortStep : kPollMillis;
}

void MetricSender::Send(std::string tenant) {
  EnterThread("ms_sender");
  if (collector_factory_ == nullptr) {
    METRICS_LOG_WARN("Sender[%s] start fialed, internal error with nullptr.\n", tenant.c_str());
    return;
  }
  FetchTenantInterval(tenant);
  RunWithinMemory(tenant.c_str(), "a check of intervals", [&] { WarnOfIntervals(tenant); });
  while (state_.load(std::memory_order_acquire) == MetricState::INIT) {
    SleepMillis(kPollMillis);
  }
  const int interval = interval_.load();
  if (interval < 1 || interval > kMaxInterval) {
    METRICS_LOG_WARN("Sender[%s] start fialed, internal error with interval less than 0.\n",
                     tenant.c_str());
    return;
  }
  Loop(tenant, interval * kMillisPerSecond);
}

void MetricSender::FetchTenantInterval(const std::string& tenant) {
  for (int attempt = 0; attempt < kIntervalTries && state_.load() != MetricState::SHUTDOWN;
       ++attempt) {
    std::pair<bool, int> answer{false, 0};
    RunWithinMemory(tenant.c_str(), "a question for the interval",
                    [&] { answer = client_->configer_->impl_->GetTenantInterval(tenant); });
    if (answer.first) {
      interval_.exchange(answer.second);
      METRICS_LOG_INFO("tenant config interval: tenant= %s, interval= %d\n", tenant.c_str(),
                       answer.second);
      return;
    }
  }
}

void MetricSender::WarnOfIntervals(const std::string& tenant) {
  // A registry that is made from here on asks for itself.
  interval_known_.store(true);
  for (const std::shared_ptr<MetricRegistry>& registry :
       client_->metric_factory_->GetAllRegistry()) {
    if (registry->Tenant() == tenant) {
      registry->WarnOfInterval(interval_.load());
    }
  }
}

void MetricSender::Loop(const std::string& tenant, int period_ms) {
  const int step_ms = AdjustSleepStep(period_ms);
  while (Running()) {
    work_state_ = WorkState::kSleeping;
    int left_ms = 0;
    if (!SleepToBoundary(tenant, last_flush_ts_, left_ms, period_ms, step_ms)) {
      return;
    }
    work_state_ = WorkState::kSlept;
    METRICS_LOG_DEBUG("flush timestamp[%lds], left inteval[%dms]\n", last_flush_ts_, left_ms);
    if (!Running()) {
      return;
    }
    work_state_ = WorkState::kWorking;
    if (!DoPackAndSend()) {
      return;
    }
  }
}

bool MetricSender::SleepToBoundary(const std::string& tenant, int64_t& flush_ts, int& left_ms,
                                   int period_ms, int step_ms) {
  const int64_t now_ms = WallMillis();
  left_ms = static_cast<int>(period_ms - now_ms % period_ms);
  if (!SyncMilliStepSleep(left_ms, step_ms, state_)) {
    return false;
  }
  // The boundary that was aimed at, whatever the sleep really took.
  const int64_t boundary_ms = (now_ms + left_ms) / period_ms * period_ms;
  const int64_t boundary = boundary_ms / kMillisPerSecond;
  if (flush_ts != 0 && boundary - flush_ts > period_ms / kMillisPerSecond) {
    METRICS_LOG_WARN("Sender[%s]Last send timeout, last_timetamp: %ld, now: %ld\n", tenant.c_str(),
                     flush_ts, boundary);
  }
  flush_ts = boundary;
  return true;
}

bool MetricSender::AdjustTime(const std::string& tenant, long& flush_ts, int& left_ms,
                              const int& interval) {
  const int period_ms = interval * kMillisPerSecond;
  return SleepToBoundary(tenant, flush_ts, left_ms, period_ms, AdjustSleepStep(period_ms));
}

bool MetricSender::DoPackAndSend() {
  if (collector_factory_->state_.load(std::memory_order_relaxed) != MetricState::READY) {
    return false;
  }
  RunWithinMemory(tenant_.c_str(), "a flush", [this] { Flush(); });
  return true;
}

void MetricSender::Flush() {
  const int64_t start = WallMicros();
  const CollectorList collectors =
      collector_factory_->GetTenantSendCollector(tenant_, interval_.load(), last_flush_ts_);
  METRICS_LOG_DEBUG("Get Tenant Collectors num: %ld\n", static_cast<long>(collectors.size()));
  encoder_->PackCollector(collectors);
  flushed_ts_.store(last_flush_ts_, std::memory_order_relaxed);
  if (monitor_enabled_.load(std::memory_order_relaxed)) {
    client_->self_monitor_->EmitForSenderLatency(tenant_, "tenant", WallMicros() - start);
    InitStat();  // keeps both series alive, also where nothing is sent or dropped for hours
  }
}

void MetricSender::InitStat() {
  if (!monitor_enabled_.load(std::memory_order_relaxed)) {
    return;
  }
  if (client_ == nullptr) {
    monitor_enabled_.store(false, std::memory_order_relaxed);
    return;
  }
  // Taken anew each time: the series may have been erased meanwhile, by a clock that leapt or a
  // registry that was blocked.
  const MetricSelfMonitor& monitor = *client_->self_monitor_;
  const auto bind = [&](const char* cause, const char* field,
                        std::shared_ptr<MetricCollectorItem>& item,
                        AtomicSharedPtr<MetricBasicData>& cell) {
    cell.Store(monitor.InitSenderMonitorData({{"tenant", tenant_}, {"cause", cause}}, field, item));
  };
  Statistic& stat = statistic_;
  std::shared_ptr<MetricCollectorItem> sent;
  std::shared_ptr<MetricCollectorItem> dropped;
  bind("send", "bytes", sent, stat.send_bytes);
  bind("drop", "bytes", dropped, stat.drop_bytes);
  bind("send", "metrics", sent, stat.send_metrics);
  bind("drop", "metrics", dropped, stat.drop_metrics);
  bind("send", "series", sent, stat.send_series);
  bind("drop", "series", dropped, stat.drop_series);
  stat.send_item.Store(std::move(sent));
  stat.drop_item.Store(std::move(dropped));
}

void MetricSender::UpdateStatTime(bool success) {
  const std::shared_ptr<MetricCollectorItem> item =
      success ? statistic_.send_item.Load() : statistic_.drop_item.Load();
  if (item != nullptr) {
    item->Refresh();
  }
}

void MetricSender::SendPacket(const FinishedPacket& packet) {
  statistic_.metric_num = packet.metric_num;
  statistic_.series_num = packet.series_num;
  SendToSocket(packet.begin, packet.length);
}

void MetricSender::CountLostSeries() {
  METRICS_LOG_ERROR("Sender[%s] A series dropped, no memory to pack what it reports\n",
                    tenant_.c_str());
  AddTo(statistic_.drop_series, 1);
}

void MetricSender::AccountPacket(bool delivered, int bytes, int64_t started_micros) {
  const int64_t now = WallMicros();
  const Statistic& stat = statistic_;
  AddTo(delivered ? stat.send_bytes : stat.drop_bytes, bytes);
  AddTo(delivered ? stat.send_metrics : stat.drop_metrics, stat.metric_num);
  AddTo(delivered ? stat.send_series : stat.drop_series, stat.series_num);
  client_->self_monitor_->EmitForSenderLatency(tenant_, "package", now - started_micros);
}

void MetricSender::IdentifyEncoder() {
  const MetricConfiger& configer = *client_->configer_;
  encoder_->Init(configer.impl_->account_id, configer.impl_->project_id, configer.psm_);
}

void MetricSender::ForgetParent() {
  StopFlushing();
  // Not before the thread is gone: it reads it.
  client_ = nullptr;
}

void MetricSender::StopFlushing() {
  const bool interrupted = WorkInterrupted();
  if (!StopThread() && interrupted) {
    Abandon(encoder_);
  }
}

bool MetricSender::WorkInterrupted() const {
  return InForkTeardown() &&
         (state_.load() == MetricState::INIT || work_state_ == WorkState::kWorking);
}

void MetricSender::CloseOnExec() const { ::fcntl(sock_, F_SETFD, FD_CLOEXEC); }

void MetricSender::CloseSocket() {
  if (sock_ >= 0) {
    ::close(std::exchange(sock_, -1));
  }
}

void MetricSender::Exit() {
  const auto start = steady_clock::now();
  StopFlushing();
  CloseSocket();
  METRICS_LOG_WARN("MetricSender[%s] Exit, interval: %d, exit cost: %ldms\n", tenant_.c_str(),
                   interval_.load(), MillisSince(start));
}

void MetricSender::FlushAndExit() {
  const auto start = steady_clock::now();
  METRICS_LOG_WARN("Sender[%s] enter FlushAndExit\n", tenant_.c_str());
  JoinThread();
  METRICS_LOG_WARN("Sender[%s] thread joined as state %s[0:Idle,1:Sleeping,2:Slept,3:Working]\n",
                   tenant_.c_str(), std::to_string(static_cast<int>(work_state_)).c_str());
  // A flush that was running meanwhile was the last one: what it had not due, and what came in
  // after its boundary, is lost.
  if (work_state_ != WorkState::kWorking) {
    RunWithinMemory(tenant_.c_str(), "the last flush", [this] { FlushRest(); });
  }
  CloseSocket();
  METRICS_LOG_WARN("MetricSender[%s] FlushAndExit, interval: %d, exit cost: %ldms\n",
                   tenant_.c_str(), interval_.load(), MillisSince(start));
}

void MetricSender::FlushRest() {
  const int interval = interval_.load();
  if (work_state_ == WorkState::kSlept) {
    last_flush_ts_ -= interval;
  }
  work_state_ = WorkState::kWorking;
  if (last_flush_ts_ == 0) {
    const int64_t now_s = WallMillis() / kMillisPerSecond;
    last_flush_ts_ = interval > 0 ? now_s - now_s % interval : now_s;
  }
  METRICS_LOG_WARN("Sender[%s] GatherForFlush as previous flush timestamp: %ld\n", tenant_.c_str(),
                   last_flush_ts_);
  const auto by_second = collector_factory_->GatherForFlush(tenant_, interval, last_flush_ts_);
  for (const auto& [second, collectors] : by_second) {
    last_flush_ts_ = second;
    encoder_->PackCollector(collectors);
  }
}

}  // namespace METRICS

#include "metrics/metric_sender.h"

#include <cassert>
#include <chrono>
#include <exception>
#include <utility>

#include "metrics/client_parts.h"
#include "metrics/flush_watch.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_encoder.h"
#include "metrics/sender_reports.h"
#include "util/fork_guard.h"
#include "util/metric_clock_util.h"
#include "util/metric_log.h"
#include "util/wall_clock.h"
#include "util/within_memory.h"

namespace METRICS {
namespace {

constexpr int kIntervalTries = 3;

using std::chrono::steady_clock;

}  // namespace

MetricSender::MetricSender(const std::string& tenant, ClientParts* client)
    : SenderAccounts(tenant, client),
      PacketSender(client->configer_->pre_encode_tags_),
      collector_factory_(client->collector_factory_),
      encoder_(std::make_shared<MetricEncoder>(this, tenant)) {
  // Last: the thread touches nothing virtual until a leaf class's `Init` lets it go.
  StartThread("ms_sender", &MetricSender::Send, this, tenant);
}

MetricSender::~MetricSender() {
  client_ = nullptr;
  if (thread_.joinable()) {
    std::terminate();  // while it still has its encoder
  }
}

ReturnCode MetricSender::SocketInit() { return ReturnCode::kOk; }

void MetricSender::Send(std::string tenant) {
  EnterThread("ms_sender");
  if (collector_factory_ == nullptr) {
    METRICS_LOG_WARN("Sender[%s] start fialed, internal error with nullptr.\n", tenant.c_str());
    return;
  }
  if (FetchTenantInterval(tenant)) {
    // A registry that is made from here on asks for itself.
    interval_known_.store(true);
    RunWithinMemory(tenant.c_str(), "a check of intervals",
                    [&] { client_->sender_reports_->WarnOfIntervals(tenant, interval_.load()); });
  }
  FlushAtBoundaries(tenant, last_flush_ts_, [this] { return DoPackAndSend(); });
}

bool MetricSender::FetchTenantInterval(const std::string& tenant) {
  for (int attempt = 0; attempt < kIntervalTries; ++attempt) {
    if (state_.load() == MetricState::SHUTDOWN) {
      return false;
    }
    std::pair<bool, int> answer{false, 0};
    RunWithinMemory(tenant.c_str(), "a question for the interval",
                    [&] { answer = client_->configer_->impl_->GetTenantInterval(tenant); });
    if (answer.first) {
      interval_.exchange(answer.second);
      METRICS_LOG_INFO("tenant config interval: tenant= %s, interval= %d\n", tenant.c_str(),
                       answer.second);
      return true;
    }
  }
  return true;
}

bool MetricSender::DoPackAndSend() {
  if (collector_factory_->state_.load(std::memory_order_relaxed) != MetricState::READY) {
    return false;
  }
  if (client_->flush_watch_ != nullptr) {
    client_->flush_watch_->BeforeFlush();
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
  AccountFlush(last_flush_ts_, start);
}

void MetricSender::SendPacket(const FinishedPacket& packet) {
  statistic_.metric_num = packet.metric_num;
  statistic_.series_num = packet.series_num;
  SendToSocket(packet.begin, packet.length);
}

void MetricSender::CountLostSeries() { AccountLostSeries(); }

void MetricSender::IdentifyEncoder() {
  const MetricConfiger& configer = *client_->configer_;
  encoder_->Init(configer.impl_->account_id, configer.impl_->project_id, configer.psm_);
}

void MetricSender::EnterService() { state_.store(MetricState::READY, std::memory_order_release); }

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

void MetricSender::Exit() {
  const auto start = steady_clock::now();
  StopFlushing();
  CloseSocket();
  METRICS_LOG_WARN("MetricSender[%s] Exit, interval: %d, exit cost: %ldms\n", tenant_.c_str(),
                   interval_.load(), MillisSince(start));
}

void MetricSender::FlushAndExit() {
  assert(state_.load() == MetricState::SHUTDOWN);
  const auto start = steady_clock::now();
  METRICS_LOG_WARN("Sender[%s] enter FlushAndExit\n", tenant_.c_str());
  JoinThread();
  METRICS_LOG_WARN("Sender[%s] thread joined as state %s[0:Idle,1:Sleeping,2:Slept,3:Working]\n",
                   tenant_.c_str(), std::to_string(static_cast<int>(work_state_)).c_str());
  // A flush that was running meanwhile was the last one: numbers of collectors that were not due
  // in it, and numbers that came in later, are lost.
  if (work_state_ != WorkState::kWorking) {
    RunWithinMemory(tenant_.c_str(), "the last flush", [this] { FlushRest(); });
  }
  CloseSocket();
  METRICS_LOG_WARN("MetricSender[%s] FlushAndExit, interval: %d, exit cost: %ldms\n",
                   tenant_.c_str(), interval_.load(), MillisSince(start));
}

void MetricSender::FlushRest() {
  const int interval = interval_.load();
  BeginLastFlush(last_flush_ts_, interval);
  METRICS_LOG_WARN("Sender[%s] GatherForFlush as previous flush timestamp: %ld\n", tenant_.c_str(),
                   last_flush_ts_);
  const auto by_second = collector_factory_->GatherForFlush(tenant_, interval, last_flush_ts_);
  for (const auto& [second, collectors] : by_second) {
    last_flush_ts_ = second;
    encoder_->PackCollector(collectors);
  }
}

}  // namespace METRICS

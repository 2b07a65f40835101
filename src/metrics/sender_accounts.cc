#include "metrics/sender_accounts.h"

#include <cassert>
#include <cstring>
#include <memory>
#include <utility>

#include "metrics/client_parts.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_data.h"
#include "metrics/sender_reports.h"
#include "util/metric_log.h"
#include "util/wall_clock.h"
#include "util/within_memory.h"

namespace METRICS {
namespace {

void AddTo(const AtomicSharedPtr<MetricBasicData>& cell, long amount) {
  const std::shared_ptr<MetricBasicData> data = cell.Load();
  if (data != nullptr) {
    data->Emit(amount);
  }
}

}  // namespace

SenderAccounts::SenderAccounts(const std::string& tenant, ClientParts* client)
    : tenant_(tenant), client_(client), monitor_enabled_(client->configer_->enable_monitor_) {
  assert(client->sender_reports_ != nullptr);
}

void SenderAccounts::InitStat() {
  if (!monitor_enabled_.load(std::memory_order_relaxed)) {
    return;
  }
  if (client_ == nullptr) {
    monitor_enabled_.store(false, std::memory_order_relaxed);
    return;
  }
  // Taken anew each time: the series may have been erased meanwhile, by a clock that leapt or a
  // registry that was blocked.
  const SenderReports& reports = *client_->sender_reports_;
  const auto bind = [&](const char* cause, const char* field,
                        std::shared_ptr<MetricCollectorItem>& item,
                        AtomicSharedPtr<MetricBasicData>& cell) {
    cell.Store(reports.InitSenderMonitorData({{"tenant", tenant_}, {"cause", cause}}, field, item));
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

void SenderAccounts::UpdateStatTime(bool success) {
  const std::shared_ptr<MetricCollectorItem> item =
      success ? statistic_.send_item.Load() : statistic_.drop_item.Load();
  if (item != nullptr) {
    item->Refresh();
  }
}

void SenderAccounts::AccountLostSeries() {
  METRICS_LOG_ERROR("Sender[%s] A series dropped, no memory to pack what it reports\n",
                    tenant_.c_str());
  AddTo(statistic_.drop_series, 1);
}

void SenderAccounts::AccountFlush(int64_t boundary, int64_t started_micros) {
  flushed_ts_.store(boundary, std::memory_order_relaxed);
  if (monitor_enabled_.load(std::memory_order_relaxed)) {
    client_->sender_reports_->EmitForSenderLatency(tenant_, "tenant",
                                                   WallMicros() - started_micros);
    InitStat();  // keeps both series alive, also where nothing is sent or dropped for hours
  }
}

void SenderAccounts::AccountPacket(bool delivered, int bytes, int64_t started_micros, int error) {
  (delivered ? packets_delivered_ : packets_dropped_).fetch_add(1, std::memory_order_relaxed);
  if (!monitor_enabled_.load(std::memory_order_relaxed)) {
    return;
  }
  RunWithinMemory(tenant_.c_str(), "the account of a packet", [&] {
    ReportPacket(delivered, bytes, WallMicros() - started_micros);
    if (!delivered) {
      CountFailure(error);
    }
  });
  UpdateStatTime(delivered);
}

void SenderAccounts::ReportPacket(bool delivered, int bytes, int64_t micros) {
  const Statistic& stat = statistic_;
  AddTo(delivered ? stat.send_bytes : stat.drop_bytes, bytes);
  AddTo(delivered ? stat.send_metrics : stat.drop_metrics, stat.metric_num);
  AddTo(delivered ? stat.send_series : stat.drop_series, stat.series_num);
  client_->sender_reports_->EmitForSenderLatency(tenant_, "package", micros);
}

void SenderAccounts::CountFailure(int error) const {
  client_->sender_reports_->EmitForSenderFial(tenant_, std::strerror(error));
}

}  // namespace METRICS

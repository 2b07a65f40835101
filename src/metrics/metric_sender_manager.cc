#include "metrics/metric_sender_manager.h"

#include <atomic>
#include <map>
#include <sstream>
#include <utility>

#include "metrics/metric_tcp_sender.h"
#include "metrics/metric_unix_domain_sender.h"
#include "util/fork_guard.h"
#include "util/log_scope.h"
#include "util/metric_log.h"
#include "util/state_text.h"

namespace METRICS {
namespace {

/// Marks the table as being changed for its life, also where memory runs out in the middle.
class TableChange {
 public:
  explicit TableChange(std::atomic<bool>& changing) : changing_(changing) { changing_.store(true); }
  ~TableChange() { changing_.store(false); }
  TableChange(const TableChange&) = delete;
  TableChange& operator=(const TableChange&) = delete;

 private:
  std::atomic<bool>& changing_;
};

}  // namespace

MetricSenderManager::MetricSenderManager(ClientParts* client) : client_(client) {}

MetricSenderManager::~MetricSenderManager() {
  Exit();
  client_ = nullptr;
  METRICS_LOG_DEBUG("MetricSenderManager Destructor.\n");
}

ReturnCode MetricSenderManager::CreateSender(const std::string& tenant, MetricSenderType type) {
  const WriteGuard guard(mutex_);
  if (senders_.count(tenant) != 0) {
    METRICS_LOG_WARN("Sender of [%s] already exist, CreateSender skipped.\n", tenant.c_str());
    return ReturnCode::kObjectExisted;
  }
  std::unique_ptr<MetricSender> made;
  if (type == MetricSenderType::kSenderUnixDomain) {
    made = std::make_unique<MetricUnixDomainSender>(tenant, client_);
  } else {
    made = std::make_unique<MetricTcpSender>(tenant, client_);
  }
  if (!made->thread_.joinable()) {
    return ReturnCode::kAllocCollectorError;
  }
  const auto stored = Store(tenant, std::move(made));
  try {
    stored->second->Init();
  } catch (...) {  // for want of memory: the next call begins anew
    Delete(stored);
    throw;
  }
  return ReturnCode::kOk;
}

MetricSenderManager::Table::iterator MetricSenderManager::Store(
    const std::string& tenant, std::unique_ptr<MetricSender> sender) {
  const TableChange change(table_changing_);
  return senders_.emplace(tenant, std::move(sender)).first;
}

void MetricSenderManager::Delete(Table::iterator sender) {
  sender->second.reset();
  const TableChange change(table_changing_);
  senders_.erase(sender);
}

ReturnCode MetricSenderManager::GetSender(MetricSender*& sender, std::string tenant) {
  const WriteGuard guard(mutex_);
  const auto found = senders_.find(tenant);
  sender = found == senders_.end() ? nullptr : found->second.get();
  return sender == nullptr ? ReturnCode::kObjectNotExisted : ReturnCode::kOk;
}

ReturnCode MetricSenderManager::RemoveSender(std::string tenant) {
  const ThreadsEndLogScope lines;
  const WriteGuard guard(mutex_);
  const auto found = senders_.find(tenant);
  if (found == senders_.end()) {
    return ReturnCode::kObjectNotExisted;
  }
  found->second->Exit();
  Delete(found);
  return ReturnCode::kOk;
}

void MetricSenderManager::StopAll() {
  for (const auto& [tenant, sender] : senders_) {
    sender->state_.exchange(MetricState::SHUTDOWN);
  }
}

void MetricSenderManager::DeleteAll() {
  for (auto& [tenant, sender] : senders_) {
    sender.reset();
  }
  const TableChange change(table_changing_);
  senders_.clear();
}

// The number in the closing lines of these three is taken after the table was emptied.

void MetricSenderManager::Exit() {
  const WriteGuard guard(mutex_);
  StopAll();
  DeleteAll();
  METRICS_LOG_WARN("MetricSenderManager Exit, sender num: %lu\n", senders_.size());
}

void MetricSenderManager::FlushAndExit() {
  const WriteGuard guard(mutex_);
  StopAll();
  for (const auto& [tenant, sender] : senders_) {
    sender->FlushAndExit();
  }
  DeleteAll();
  METRICS_LOG_WARN("MetricSenderManager FlushAndExit, sender num: %lu\n", senders_.size());
}

void MetricSenderManager::AtFork() {
  const WriteGuard guard(mutex_);
  for (const auto& [tenant, sender] : senders_) {
    if (sender != nullptr) {  // a thread of the parent was about to delete it
      sender->AtFork();
    }
  }
  DeleteAll();
  METRICS_LOG_WARN("MetricSenderManager AtFork, sender num: %lu\n", senders_.size());
}

void MetricSenderManager::RepairAfterFork() {
  mutex_.ReinitAfterFork();
  if (table_changing_.exchange(false)) {
    Abandon(senders_);
  }
}

ReturnCode MetricSenderManager::UpdateSenderInterval(
    std::unordered_map<std::string, int>& intervals) {
  const WriteGuard guard(mutex_);
  for (const auto& [tenant, sender] : senders_) {
    const auto found = intervals.find(tenant);
    if (found == intervals.end()) {
      continue;
    }
    sender->interval_.store(found->second);
    METRICS_LOG_WARN("Sender[%s] modify flush interval from %d to %d\n", tenant.c_str(),
                     sender->interval_.load(), found->second);
  }
  return ReturnCode::kOk;
}

int MetricSenderManager::KnownInterval(const std::string& tenant) {
  const WriteGuard guard(mutex_);
  const auto found = senders_.find(tenant);
  return found != senders_.end() && found->second->interval_known_.load()
             ? found->second->interval_.load()
             : 0;
}

std::vector<std::string> MetricSenderManager::GetAllTenant() {
  const WriteGuard guard(mutex_);
  std::vector<std::string> tenants;
  tenants.reserve(senders_.size());
  for (const auto& [tenant, sender] : senders_) {
    tenants.push_back(tenant);
  }
  return tenants;
}

std::string MetricSenderManager::DebugString() {
  const WriteGuard guard(mutex_);
  std::map<std::string, const MetricSender*> sorted;
  for (const auto& [tenant, sender] : senders_) {
    sorted.emplace(tenant, sender.get());
  }
  std::ostringstream out;
  for (const auto& [tenant, sender] : sorted) {
    const int64_t flushed = sender->flushed_ts_.load();
    out << "sender " << tenant << ": " << StateText(sender->state_.load()) << ", every "
        << sender->interval_.load() << " s, last flush "
        << (flushed == 0 ? "none" : std::to_string(flushed)) << ", packets delivered "
        << sender->packets_delivered_.load() << ", dropped " << sender->packets_dropped_.load()
        << '\n';
  }
  return out.str();
}

}  // namespace METRICS

#include "metrics/metric_factory.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "metrics/client_parts.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_sender_manager.h"
#include "metrics/removed.h"
#include "util/fork_guard.h"
#include "util/logging_lock.h"
#include "util/metric_clock_util.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"
#include "util/metric_tag_util.h"
#include "util/wait.h"

namespace METRICS {
namespace {

constexpr size_t kMaxRegistryTags = 255;

std::string KeyOf(const std::string& tenant, const std::string& prefix) {
  return tenant + "." + prefix;
}

}  // namespace

struct MetricFactory::Table {
  MetricRegistry* Find(const std::string& key) const METRICS_REQUIRES_SHARED(rwlock_) {
    const auto found = registries_.find(key);
    return found == registries_.end() ? nullptr : found->second.get();
  }

  LoggingRwLock rwlock_;
  std::unordered_map<std::string, std::shared_ptr<MetricRegistry>> registries_
      METRICS_GUARDED_BY(rwlock_);
};

MetricFactory::MetricFactory(ClientParts* client)
    : client_(client), table_(std::make_unique<Table>()) {
  state_.exchange(MetricState::READY);
}

MetricFactory::~MetricFactory() {
  state_.store(MetricState::SHUTDOWN, std::memory_order_relaxed);
  Clear();
  client_ = nullptr;
  METRICS_LOG_DEBUG("MetricFactory Destructor.\n");
}

ReturnCode MetricFactory::CreateRegistry(MetricRegistry*& registry, std::string prefix,
                                         const std::vector<tidegate::MetricTag>&& tags,
                                         std::string tenant, tidegate::VendorInterface* vendor,
                                         int flush_interval, MetricSenderType sender_type) {
  // A sender that is given up while it connects would never send.
  const NoCancellation uncancelled;
  const std::string key = KeyOf(tenant, prefix);
  registry = nullptr;
  bool full = false;
  {
    const ReadGuard guard(table_->rwlock_);
    if (table_->Find(key) != nullptr) {
      METRICS_LOG_CODE(ReturnCode::kObjectExisted);
      return ReturnCode::kObjectExisted;
    }
    full = table_->registries_.size() >= kMaxRegistries;
  }
  ReturnCode code = CheckDefinition(prefix, tags, tenant, flush_interval);
  if (code != ReturnCode::kOk) {
    METRICS_LOG_CODE(code);
    return code;
  }
  const int interval = CheckFlushInterval(flush_interval);
  if (full) {
    METRICS_LOG_CODE(ReturnCode::kMaxRegistry);
    return ReturnCode::kMaxRegistry;
  }
  // The registry goes into the table, from where others take it, when nothing can fail any more for
  // want of a thread or of memory. Neither the vendor nor the sender is called with the table's
  // lock held.
  const auto made = std::make_shared<MetricRegistry>(tenant, prefix, client_, interval);
  made->GenrateTagsOnRegistry(std::move(tags),
                              vendor != nullptr ? vendor : client_->configer_->vendor_.get());
  code = client_->sender_manager_->CreateSender(tenant, sender_type);
  if (code == ReturnCode::kOk || code == ReturnCode::kObjectExisted) {
    code = Insert(made, key);
  }
  if (code != ReturnCode::kOk) {
    METRICS_LOG_CODE(code);
    return code;
  }
  registry = made.get();
  made->WarnOfInterval(client_->sender_manager_->KnownInterval(tenant));
  return ReturnCode::kOk;
}

ReturnCode MetricFactory::CheckDefinition(const std::string& prefix,
                                          const std::vector<tidegate::MetricTag>& tags,
                                          const std::string& tenant, int flush_interval) {
  if (tags.size() > kMaxRegistryTags) {
    return ReturnCode::kMaxTagPair;
  }
  if (!IsValidKey(tenant) || !IsValidKeyOrEmpty(prefix)) {
    return ReturnCode::kInvalidString;
  }
  if (!std::all_of(tags.begin(), tags.end(), IsValidTag)) {
    return ReturnCode::kInvalidString;
  }
  if (!CheckDuplicatedString(KeysOf(tags))) {
    return ReturnCode::kDuplicatedTagName;
  }
  return flush_interval < 1 ? ReturnCode::kNotSupported : ReturnCode::kOk;
}

ReturnCode MetricFactory::Insert(const std::shared_ptr<MetricRegistry>& registry,
                                 const std::string& key) {
  const WriteGuard guard(table_->rwlock_);
  if (table_->registries_.size() >= kMaxRegistries) {
    return ReturnCode::kMaxRegistry;
  }
  if (!table_->registries_.emplace(key, registry).second) {
    return ReturnCode::kObjectExisted;
  }
  METRICS_LOG_DEBUG("Create new registry[%s  %s] flush interval[%ds]\n", registry->Tenant().c_str(),
                    registry->Prefix().c_str(), registry->FlushInterval());
  return ReturnCode::kOk;
}

ReturnCode MetricFactory::CreateRegistry(MetricRegistry*& registry, std::string prefix,
                                         const std::vector<tidegate::MetricTag>&& tags,
                                         std::string tenant) {
  return CreateRegistry(registry, std::move(prefix), std::move(tags), std::move(tenant),
                        client_->configer_->flush_interval_);
}

ReturnCode MetricFactory::CreateRegistry(MetricRegistry*& registry, std::string prefix,
                                         const std::vector<tidegate::MetricTag>&& tags,
                                         std::string tenant, int flush_interval) {
  const MetricConfiger& configer = *client_->configer_;
  return CreateRegistry(registry, std::move(prefix), std::move(tags), std::move(tenant),
                        configer.vendor_.get(), flush_interval, configer.sender_type_);
}

ReturnCode MetricFactory::CreateRegistry(MetricRegistry*& registry, MetricRegistryCfg cfg) {
  return CreateRegistry(registry, std::move(cfg.prefix), std::move(cfg.tags), std::move(cfg.tenant),
                        cfg.vendor, cfg.flush_interval, cfg.sender_type);
}

ReturnCode MetricFactory::GetRegistry(MetricRegistry*& registry, std::string prefix,
                                      std::string tenant) {
  const std::string key = KeyOf(tenant, prefix);
  const ReadGuard guard(table_->rwlock_);
  registry = table_->Find(key);
  return registry == nullptr ? ReturnCode::kObjectNotExisted : ReturnCode::kOk;
}

ReturnCode MetricFactory::RemoveRegistry(std::string prefix, std::string tenant) {
  const std::string key = KeyOf(tenant, prefix);
  Removed removed;  // dies after the guard
  const WriteGuard guard(table_->rwlock_);
  const auto found = table_->registries_.find(key);
  if (found == table_->registries_.end()) {
    METRICS_LOG_CODE(ReturnCode::kObjectNotExisted);
    return ReturnCode::kObjectNotExisted;
  }
  removed.registries.push_back(found->second);
  found->second->Clear(removed);
  table_->registries_.erase(found);
  return ReturnCode::kOk;
}

ReturnCode MetricFactory::Block(const std::string& tenant, const std::string& prefix) {
  METRICS_LOG_DEBUG("Try to block registry[%s.%s]\n", tenant.c_str(), prefix.c_str());
  const std::string key = KeyOf(tenant, prefix);
  Removed removed;  // dies after the guard
  const ReadGuard guard(table_->rwlock_);
  MetricRegistry* const registry = table_->Find(key);
  return registry == nullptr ? ReturnCode::kObjectNotExisted : registry->Block(removed);
}

ReturnCode MetricFactory::UnBlock(const std::string& tenant, const std::string& prefix) {
  METRICS_LOG_DEBUG("Try to unblock registry[%s.%s]\n", tenant.c_str(), prefix.c_str());
  const std::string key = KeyOf(tenant, prefix);
  const ReadGuard guard(table_->rwlock_);
  MetricRegistry* const registry = table_->Find(key);
  return registry == nullptr ? ReturnCode::kObjectNotExisted : registry->UnBlock();
}

std::vector<std::string> MetricFactory::GetAllRegistryNames() const {
  std::vector<std::string> names;
  const ReadGuard guard(table_->rwlock_);
  names.reserve(table_->registries_.size());
  for (const auto& [key, registry] : table_->registries_) {
    names.push_back(key);
  }
  return names;
}

std::vector<std::shared_ptr<MetricRegistry>> MetricFactory::GetAllRegistry() const {
  std::vector<std::shared_ptr<MetricRegistry>> all;
  const ReadGuard guard(table_->rwlock_);
  all.reserve(table_->registries_.size());
  for (const auto& [key, registry] : table_->registries_) {
    all.push_back(registry);
  }
  return all;
}

void MetricFactory::Clear() {
  Removed removed;  // dies after the guard
  const WriteGuard guard(table_->rwlock_);
  for (const auto& [key, registry] : table_->registries_) {
    removed.registries.push_back(registry);
    registry->Clear(removed);
  }
  table_->registries_.clear();
}

void MetricFactory::AtFork() {
  const WriteGuard guard(table_->rwlock_);
  state_.exchange(MetricState::SHUTDOWN);
  METRICS_LOG_INFO("MetricFactory AtFork.\n");
  for (const auto& [key, registry] : table_->registries_) {
    registry->AtFork();
  }
  table_->registries_.clear();
}

void MetricFactory::RepairAfterFork() METRICS_NO_THREAD_SAFETY {
  RepairGuarded(table_->rwlock_, table_->registries_);
  for (const auto& [key, registry] : table_->registries_) {
    registry->RepairAfterFork();
  }
}

}  // namespace METRICS

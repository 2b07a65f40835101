#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/metric_sender.h"
#include "util/logging_lock.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

struct ClientParts;

/// One sender per tenant.
///
/// Threads: all operations from any thread; one mutex is held from their first to their last step,
/// joins and socket work included. Flush threads never take it. Owns the senders.
class METRICS_API MetricSenderManager {
 public:
  /// `client` is not owned and outlives this object.
  explicit MetricSenderManager(ClientParts* client);
  ~MetricSenderManager();
  MetricSenderManager(const MetricSenderManager&) = delete;
  MetricSenderManager& operator=(const MetricSenderManager&) = delete;

  /// Makes and initialises the sender of `tenant`. 0 also if its socket could not be made: it then
  /// stands in the table without ever flushing. 19 when there is one already. 17, or
  /// `std::bad_alloc`, and nothing left of it, when there is no thread or no memory to be had.
  ReturnCode CreateSender(const std::string& tenant, MetricSenderType type);
  /// 20 and null when there is none. The sender stays the manager's.
  ReturnCode GetSender(MetricSender*& sender, std::string tenant);
  /// Stops and deletes one, without a last flush. 20 when there is none. Not called by the library.
  ReturnCode RemoveSender(std::string tenant);
  /// Stops all at once, then deletes them; nothing is flushed.
  void Exit();
  /// Stops all at once, then lets one after the other make its last flush on the calling thread.
  void FlushAndExit();
  /// For the child of a fork: forgets the threads, and deletes all senders.
  void AtFork();
  /// In a forked child, before everything else: see `MetricCollectorFactory::RepairAfterFork`.
  void RepairAfterFork() METRICS_NO_THREAD_SAFETY;
  /// Stores new intervals, in seconds and not validated, for the tenants that have a sender. A
  /// running thread keeps its period. Always 0. Not called by the library.
  ReturnCode UpdateSenderInterval(std::unordered_map<std::string, int>& intervals);
  /// The interval of `tenant` in seconds; 0 as long as its flush thread has not asked for it.
  int KnownInterval(const std::string& tenant);
  /// The tenants that have a sender, in no order. Not called by the library.
  std::vector<std::string> GetAllTenant();
  /// A line for each sender, in the order of the tenants. Waits as all operations do.
  std::string DebugString();

  ClientParts* client_;  ///< not owned

 private:
  using Table = std::unordered_map<std::string, std::unique_ptr<MetricSender>>;

  __attribute__((visibility("hidden"))) Table::iterator Store(const std::string& tenant,
                                                              std::unique_ptr<MetricSender> sender)
      METRICS_REQUIRES(mutex_);
  __attribute__((visibility("hidden"))) void Delete(Table::iterator sender)
      METRICS_REQUIRES(mutex_);
  void StopAll() METRICS_REQUIRES(mutex_);
  /// Deletes the senders in the table's order.
  void DeleteAll() METRICS_REQUIRES(mutex_);

  LoggingMutex mutex_;
  Table senders_ METRICS_GUARDED_BY(mutex_);
  /// True while the table itself is being changed: a short part of the time under the mutex.
  std::atomic<bool> table_changing_{false};
};

}  // namespace METRICS

#pragma once

#include <cstdint>
#include <memory>

#include "metrics/metric_collector_factory.h"
#include "util/metric_error_code.h"
#include "util/stoppable_thread.h"

namespace METRICS {

struct ClientParts;

/// Drops series that nobody feeds: a thread "ms_expirer" that walks all collectors, hides series
/// that had no emission for more than 7200 seconds from the flushes, and erases them in batches,
/// once at least a quarter of a collector's series is idle; those that a handle holds are neither
/// erased nor counted.
///
/// Threads: `Start`, `Exit` and `AtFork` on the client's threads; the walker alone touches
/// `expired_`. It holds no lock of its own and keeps an emission from a table for the removal of
/// one key at most. A stop costs at most 5 ms and what is left of a pass.
class MetricExpireChecker : public StoppableThread {
 public:
  /// `client` is not owned and outlives this object.
  explicit MetricExpireChecker(ClientParts* client);
  ~MetricExpireChecker();
  MetricExpireChecker(const MetricExpireChecker&) = delete;
  MetricExpireChecker& operator=(const MetricExpireChecker&) = delete;

  /// Starts the walker. `seconds` sets its pause and nothing else: `seconds` milliseconds up to 10,
  /// a tenth of that from 11 on. Does nothing the second time. 17 when there is no thread to be
  /// had, 81 without collectors; it can be called again then.
  ReturnCode Start(const int& seconds);
  /// Body of the thread; `interval` is the pause in milliseconds. REQUIRES: `factory` is not null.
  void DoCheck(std::shared_ptr<MetricCollectorFactory> factory, int interval);
  /// Erases what is in `expired_` and still idle at second `now`. A series that was made anew under
  /// the same tags since the walk stays.
  void DoClean(const CollectorPtr& collector, const long& now);
  /// Stops the walker and joins it. Does nothing unless it runs.
  void Exit();
  /// For the child of a fork: forgets the thread and what it was changing.
  void AtFork();

  ClientParts* client_;            ///< not owned
  int32_t check_interval_ = 7200;  ///< milliseconds

 private:
  /// Hides the idle series of a collector, shows the others, and cleans if it is worth it.
  void CheckCollector(const CollectorPtr& collector, long now);

  /// The idle series of the collector in work.
  SeriesItems expired_;
};

}  // namespace METRICS

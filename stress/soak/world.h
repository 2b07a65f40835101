#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "metrics/metric_client.h"
#include "soak/channel.h"
#include "soak/ledger.h"
#include "soak/slot.h"
#include "support/report.h"
#include "util/metric_lock.h"

namespace tidegate::stress {

// Where the agent is to be found at the moment. Both operations from any thread.
class AgentPath {
 public:
  void Set(std::string path) {
    const METRICS::WriteGuard guard(mutex_);
    path_ = std::move(path);
  }
  std::string Get() {
    const METRICS::WriteGuard guard(mutex_);
    return path_;
  }

 private:
  METRICS::Mutex mutex_;
  std::string path_ METRICS_GUARDED_BY(mutex_);
};

// A client in one of its configurations, self monitoring on, with metrics that stay and slots in
// which metrics come and go.
//
// Threads: `Emit` from any, `Turn` from one, the rest while neither is called.
class World {
 public:
  struct Config {
    std::string name;
    bool kd_tree;     // the second collector
    bool pre_encode;  // `pre_encode_tags`
    bool expiry;
    int expire_seconds;
  };

  World(const Config& config, AgentPath& path, Ledger& ledger, Report& report,
        SlotFigures& figures);
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // A random emission on a metric that stays or comes and goes.
  void Emit(Random& random);
  // A step of each slot. Without `refill`, to an end: true when all are there.
  bool Turn(Random& random, bool refill);

  // Waits until the ordinary flushes have brought everything, and has a last one bring some more,
  // which is emitted when the flush thread is gone already. False: that was stopped in the middle
  // of a flush, so there is no other one.
  bool FlushAndExit(Random& random);
  // To be called at the very end: everything is accounted for, and every total arrived.
  void CheckBooks() const;
  int64_t emissions() const;

 private:
  void MakeSteady();
  void AddSteady(METRICS::MetricRegistry& registry, Shape shape);
  METRICS::MetricRegistry* MakeRegistry(const std::string& prefix, int flush_interval);
  bool IsSettled() const;
  void AwaitSettled() const;
  // Stops and joins the thread of the steady metrics' tenant. False if it was flushing.
  bool StopFlushThread();

  const Config config_;
  const std::string tenant_;
  const bool compatible_tags_;  // reach the packets
  Ledger& ledger_;
  Report& report_;
  METRICS::MetricClient client_;
  std::vector<std::unique_ptr<Channel>> steady_;
  std::vector<std::unique_ptr<Slot>> slots_;
};

}  // namespace tidegate::stress

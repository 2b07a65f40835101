#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "agent/connected_services.h"
#include "agent/destination_status.h"
#include "agent/drop_watch.h"
#include "agent/health.h"
#include "agent/json_writer.h"
#include "agent/series_table.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// The state of the agent as JSON, as docs/page_api.md describes it: for the page, and for whoever
// asks by the socket.
//
// Threads: any, for all calls. Borrows all that it reports on.
class StatusReport {
 public:
  using Texts = std::map<std::string, std::string>;

  static constexpr size_t kMaxCollisions = 100;
  static constexpr size_t kMaxTextBytes = 1000;

  using Destinations = std::function<std::vector<DestinationStatus>()>;  // from any thread

  StatusReport(const Health* health, SeriesTable* table, const ConnectedServices* services,
               Destinations destinations, std::chrono::seconds history);

  // The settings in force. None of them may be a secret.
  void SetSettings(const Texts& settings);
  // A line of the log about names that collide; the oldest one goes.
  void AddCollision(const std::string& text);
  // To be called every second or so.
  void Look();

  // Appends the whole. Takes the time of a walk through all series, and waits for a page that is
  // being written.
  void Append(std::string* out);

 private:
  struct Collision {
    std::string text;
    int64_t at_ms;
  };

  void AppendAgent(JsonWriter* json) const;
  void AppendRules(JsonWriter* json) const;
  void AppendServices(JsonWriter* json) const;
  void AppendDestinations(JsonWriter* json) const;
  void AppendDrops(JsonWriter* json) const;
  void AppendNumbers(JsonWriter* json) const;
  void AppendKept(JsonWriter* json) const;

  const Health* const health_;
  SeriesTable* const table_;
  const ConnectedServices* const services_;
  const Destinations destinations_;
  const std::chrono::seconds history_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  DropWatch drops_;
  mutable METRICS::Mutex mutex_;
  Texts settings_ METRICS_GUARDED_BY(mutex_);
  std::deque<Collision> collisions_ METRICS_GUARDED_BY(mutex_);
};

// Since the epoch.
int64_t NowMilliseconds();

}  // namespace tidegate::agent

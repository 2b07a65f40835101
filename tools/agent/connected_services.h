#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/packet_sink.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// The processes that send packets, each once for every owner that its packets name.
//
// Threads: Handle and Sweep on the decoder's, All from any. No lock is held for longer than a copy
// of the list takes. Bounded: beyond kMost, those that come are not in the list.
class ConnectedServices : public PacketSink {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr size_t kMost = 1000;
  static constexpr size_t kMaxTextBytes = 100;  // of each text

  struct Service {
    std::string tenant;
    std::string account_id;
    std::string project_id;
    std::string name;  // how the names of its metrics begin, whole parts alone
    pid_t pid = 0;
    uint32_t slot = kNoSlot;
    int64_t last_packet_ms = 0;  // since the epoch
    int64_t interval = 0;        // seconds from one flush to the next; 0: unknown
    double points_per_second = 0;
  };

  explicit ConnectedServices(IsLive is_live) : is_live_(std::move(is_live)) {}

  void Handle(const Packet& packet, const ClientId& client) override;

  // Lets go of processes without a connection. To be called every second or so.
  void Sweep();

  // In the order of tenant, name and process.
  std::vector<Service> All() const;

 private:
  struct Entry {
    Service service;
    int64_t newest = INT64_MIN;  // timestamp of its points
    uint64_t points = 0;         // since it became that
    size_t names = 0;            // that service.name was made from
    Clock::time_point last_packet;
  };
  using Entries = std::vector<Entry>;

  Entry* EntryOf(const Packet& packet, const ClientId& client) METRICS_REQUIRES(mutex_);

  const IsLive is_live_;
  mutable METRICS::Mutex mutex_;
  // A process has few owners.
  std::unordered_map<ProcessId, Entries> processes_ METRICS_GUARDED_BY(mutex_);
  size_t count_ METRICS_GUARDED_BY(mutex_) = 0;
};

}  // namespace tidegate::agent

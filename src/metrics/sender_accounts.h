#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "util/atomic_shared_ptr.h"

namespace METRICS {

struct ClientParts;
class MetricBasicData;
class MetricCollectorItem;

/// What a sender counts, and reports through the self monitor: bytes, metrics and series of the
/// packets, how long flushes and packets take, and why sends fail.
///
/// Threads: the flush thread, and whoever flushes after its end; `InitStat` also while it runs.
/// What is atomic may be read by any thread.
class SenderAccounts {
 public:
  /// The handles are bound by `InitStat`, stay null without self monitoring and are read by the
  /// flush thread; the counts are of the packet that is about to be sent.
  struct Statistic {
    AtomicSharedPtr<MetricCollectorItem> send_item;
    AtomicSharedPtr<MetricCollectorItem> drop_item;
    AtomicSharedPtr<MetricBasicData> send_bytes;
    AtomicSharedPtr<MetricBasicData> drop_bytes;
    AtomicSharedPtr<MetricBasicData> send_metrics;
    AtomicSharedPtr<MetricBasicData> send_series;
    AtomicSharedPtr<MetricBasicData> drop_metrics;
    AtomicSharedPtr<MetricBasicData> drop_series;
    int16_t metric_num = 0;
    int16_t series_num = 0;
  };

  SenderAccounts(const SenderAccounts&) = delete;
  SenderAccounts& operator=(const SenderAccounts&) = delete;

  /// Binds the handles of `statistic_` to the self monitor's series and marks these as alive. Runs
  /// at each flush.
  void InitStat();
  /// Marks the series of sent or dropped packets as alive: its cells are fed directly.
  void UpdateStatTime(bool success);

  Statistic statistic_;
  const std::string tenant_;
  ClientParts* client_;                ///< not owned; null after the sender's end in a forked child
  std::atomic<bool> monitor_enabled_;  ///< report on itself
  // For `MetricClient::DebugString`.
  std::atomic<int64_t> flushed_ts_{0};  ///< boundary of the last whole flush; 0: none yet
  std::atomic<uint64_t> packets_delivered_{0};
  std::atomic<uint64_t> packets_dropped_{0};

 protected:
  SenderAccounts(const std::string& tenant, ClientParts* client);
  ~SenderAccounts() = default;

  /// Accounts for the whole flush of `boundary` that began at `started_micros`.
  void AccountFlush(int64_t boundary, int64_t started_micros);
  /// Accounts for a packet, its reconnects included; `error` is the errno of a dropped one.
  void AccountPacket(bool delivered, int bytes, int64_t started_micros, int error);
  /// Accounts for what a cell reported and the encoder had no memory to write.
  void AccountLostSeries();
  /// Accounts for an attempt that failed with the errno `error`.
  void CountFailure(int error) const;

 private:
  void ReportPacket(bool delivered, int bytes, int64_t micros);
};

}  // namespace METRICS

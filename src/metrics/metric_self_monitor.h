#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "metrics/metric_collector_item.h"
#include "metrics/sender_reports.h"
#include "tidegate/metric_tag.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/stoppable_thread.h"

namespace METRICS {

struct ClientParts;
class Metric;
class MetricFactory;
class MetricRegistry;

/// The library's reports on itself, as ordinary metrics under the tenant "inf.metrics" and the
/// prefix "inf.tidegate": "version" (a heartbeat), "metric" (series, memory and emissions of each
/// metric), "sender" (bytes, metrics and series sent and dropped), "sender.latency" (microseconds
/// of flushes and packets) and "sender.fail" (failed sends by the error's text).
///
/// Threads: `Start`, `Exit` and `AtFork` on the client's threads; "ms_monitor" keeps the heartbeat
/// and walks the registries; the flush threads report through `EmitForSender...`. A stop costs at
/// most 5 ms and what is left of a walk. Removal: these metrics stay in memory as long as this
/// object, so that they may be removed or cleared at any moment; from then on it reports nothing,
/// after one Warn line.
class MetricSelfMonitor final : public StoppableThread, public SenderReports {
 public:
  /// What the loop and the senders write into. The metrics are set by `Start` and, but for
  /// `sender_latency`, cleared by `Exit`; flush threads read them meanwhile. The heartbeat's
  /// handles are the loop's alone while it runs.
  struct Statistic {
    std::shared_ptr<MetricBasicData> version_data;
    std::shared_ptr<MetricCollectorItem> version_item;
    std::atomic<Metric*> version{nullptr};
    std::atomic<Metric*> metric_stat{nullptr};
    std::atomic<Metric*> sender_stat{nullptr};
    std::atomic<Metric*> sender_latency{nullptr};
    std::atomic<Metric*> sender_fail{nullptr};
  };

  /// `client` is not owned and outlives this object.
  explicit MetricSelfMonitor(ClientParts* client);
  ~MetricSelfMonitor();
  MetricSelfMonitor(const MetricSelfMonitor&) = delete;
  MetricSelfMonitor& operator=(const MetricSelfMonitor&) = delete;

  /// Makes the registry, its metrics and the thread. The code of the first failure: 17 when there
  /// is no thread to be had.
  ReturnCode Start();
  /// Body of the thread; `interval` is the pause in milliseconds. REQUIRES: `Start` has made the
  /// metrics; `factory` is not null.
  void ClickLoop(std::shared_ptr<MetricFactory> factory, int interval);
  /// Reports every metric's statistics once. False when the factory is shut down. REQUIRES:
  /// `factory` is not null.
  bool EmitForMetric(std::shared_ptr<MetricFactory>& factory);
  /// The series of `tags` in `metric`; null without a metric.
  std::shared_ptr<MetricCollectorItem> InitSelfMonitorItem(
      Metric* metric, std::vector<tidegate::MetricTag>&& tags) const;
  std::shared_ptr<MetricBasicData> InitSenderMonitorData(
      std::vector<tidegate::MetricTag>&& tags, const std::string& field,
      std::shared_ptr<MetricCollectorItem>& item) const override;
  /// Stops the thread and removes the registry. Does nothing unless it is running.
  void Exit();
  /// For the child of a fork: forgets the thread.
  void AtFork();

  void EmitForSenderLatency(const std::string& tenant, const std::string& name,
                            long value) override;
  void EmitForSenderFial(const std::string& tenant, const std::string& status) override;
  void WarnOfIntervals(const std::string& tenant, int interval) override;

  Statistic statistic_;
  MetricRegistry* registry_ = nullptr;  ///< not owned
  ClientParts* client_;                 ///< not owned
  int32_t interval_ = 1;                ///< milliseconds

 private:
  /// `target`, or null once it is removed.
  static Metric* Standing(const std::atomic<Metric*>& target);
  static void EmitOn(const std::atomic<Metric*>& target,
                     const std::vector<tidegate::MetricTag>& tags, MetricsType type, long number);
  ReturnCode MakeMetrics();
  ReturnCode MakeVersion();
  /// Takes the heartbeat's series, anew if it is not the one that is held.
  ReturnCode BindVersion();
  ReturnCode MakeLatency();
  /// Lets the sender of these metrics report on itself, which it could not when it was made.
  void BindOwnSender();

  // What the raw pointers point at.
  std::shared_ptr<MetricRegistry> registry_pin_;
  std::vector<std::shared_ptr<Metric>> metric_pins_;
  bool told_removal_ = false;  ///< of the loop
};

}  // namespace METRICS

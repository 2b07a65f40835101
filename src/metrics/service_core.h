#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "metrics/metric_client.h"
#include "metrics/metric_slot.h"
#include "tidegate/handles.h"
#include "tidegate/options.h"
#include "util/logging_lock.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"

namespace METRICS {

class ServiceCore;

/// What a metric of a `tidegate::Metrics` is made from, in the child of a fork once more.
struct MetricDefinition {
  MetricsType type = MetricsType::kUnknown;  ///< `kMultiField` for a row
  std::string name;
  tidegate::TagNames tag_names;
  tidegate::MetricOptions options;
  std::vector<double> bounds;
  std::vector<tidegate::Field> fields;
};

/// Why handles do nothing.
struct Failure {
  std::atomic<ReturnCode> code{ReturnCode::kOk};
  std::string text;  ///< written while nobody can read it; tells nothing for the code 23
};

/// The slot of a metric. Its handles own it, and its core too, as long as the `Metrics` lives.
struct OwnedMetricSlot final : MetricSlot {
  std::shared_ptr<ServiceCore> core;  ///< goes last; null for a metric that could not be made
  MetricDefinition definition;
  Failure failure;
  std::shared_ptr<Metric> pin;             ///< what `metric` names, or has named before the end
  std::shared_ptr<OwnedMetricSlot> owned;  ///< itself, while the core owns it
  std::atomic<OwnedMetricSlot*> next{nullptr};
};

/// The slot of a bound series. Its handles own it, and the core lists it if it can be bound.
struct OwnedSeriesSlot final : SeriesSlot {
  OwnedSeriesSlot();
  ~OwnedSeriesSlot();

  std::shared_ptr<OwnedMetricSlot> metric;  ///< null for one that could not be bound
  Failure failure;
  BoundSeries bound;  ///< what `series` names, or has named before the end
  BoundSeries::Tags tags;
  std::string name;
  MetricsType type = MetricsType::kUnknown;
  std::atomic<OwnedSeriesSlot*> next{nullptr};
  OwnedSeriesSlot* previous = nullptr;
  bool listed = false;
};

/// The client of a `tidegate::Metrics`, its one registry, and lists of what its handles share.
///
/// Threads: as `tidegate::Metrics`. One mutex, which no emission takes, is held while metrics and
/// series are made, but not during the last flush, whose threads may wait for it. Fork: both lists
/// can be walked at each moment, whatever a thread of the parent was doing with them.
///
/// The end: an emission that has read its slot before goes on with a metric, or a bound series,
/// that the slot keeps for as long as it lives. From there it reaches the collector and the
/// collector factory, which the metric shares, and nothing else of the client.
class ServiceCore : public std::enable_shared_from_this<ServiceCore> {
 public:
  explicit ServiceCore(tidegate::Options options) : options_(std::move(options)) {}
  ServiceCore(const ServiceCore&) = delete;
  ServiceCore& operator=(const ServiceCore&) = delete;

  // As those of `tidegate::Metrics`.
  void Start();
  bool InService() const { return state_.load(std::memory_order_acquire) == State::kServing; }
  std::string Error() const;
  std::string DebugString() const;
  void AtFork();
  bool Init();
  void Stop();
  ReturnCode Block();
  ReturnCode UnBlock();
  MetricClient& Client() { return client_; }

  /// Never null.
  std::shared_ptr<MetricSlot> Make(MetricDefinition definition);
  /// Never null.
  std::shared_ptr<SeriesSlot> Bind(const std::shared_ptr<OwnedMetricSlot>& metric,
                                   BoundSeries::Tags tags, const std::string& name,
                                   MetricsType type);
  /// For a slot that goes.
  void Unlist(OwnedSeriesSlot& slot);
  /// For the end of the `Metrics`: its handles alone own the slots from now on.
  void LetSlotsGo();
  /// Whether this is the child of a fork that has not called `AtFork`.
  bool InOtherProcess() const;

 private:
  enum class State : uint8_t { kFailed, kServing, kEnded, kForked };

  void StartClient() METRICS_REQUIRES(mutex_);
  void Fail(std::string reason) METRICS_REQUIRES(mutex_);
  void HandleSigpipe() const;
  OwnedMetricSlot* FindSlot(const std::string& name) const;
  /// 0 with the metric in its slot; or a code, with its reason in `why`.
  ReturnCode MakeMetric(OwnedMetricSlot& slot, std::string& why) METRICS_REQUIRES(mutex_);
  ReturnCode BindSeries(OwnedSeriesSlot& slot) METRICS_REQUIRES(mutex_);
  /// Makes and binds what is listed and is not.
  void MakeMissing(bool with_reasons) METRICS_REQUIRES(mutex_);
  void CloseSlots();
  /// A sender that is stopped before it has asked for its interval takes 30 seconds, and the last
  /// points would carry a time that is to come.
  void AwaitInterval() const;
  const std::string& Prefix() const {
    return options_.prefix.empty() ? options_.service : options_.prefix;
  }

  const tidegate::Options options_;
  mutable LoggingMutex mutex_;
  std::atomic<State> state_{State::kFailed};
  pid_t process_ = 0;  ///< that it serves; written by the first thread of one
  std::string error_ METRICS_GUARDED_BY(mutex_);
  MetricClient client_;
  std::shared_ptr<MetricRegistry> registry_ METRICS_GUARDED_BY(mutex_);
  std::atomic<OwnedMetricSlot*> metrics_{nullptr};
  std::atomic<OwnedSeriesSlot*> series_{nullptr};
};

}  // namespace METRICS

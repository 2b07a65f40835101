#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "metrics/client_parts.h"
#include "metrics/core_init_cfg.h"
#include "metrics/metric.h"
#include "metrics/metric_registry.h"
#include "tidegate/mconfiger_impl_base.h"
#include "tidegate/service_discovery_base.h"
#include "tidegate/vendor_interface.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"
#include "util/metric_log_level.h"

namespace METRICS {

class SeriesGrowth;

/// The root of the library: a service makes one, calls `Init`, asks it for registries and
/// metrics, and ends it.
///
/// Threads: `CreateRegistry` and `CreateMetric` from any thread; `Init`, `Exit`, `FlushAndExit`,
/// `AtFork` and the destructor not at the same time as anything else on this client. After `Init`
/// there is one flush thread per tenant that has a registry, and one thread each for expiry and
/// self monitoring where they are enabled. Ownership: the client owns everything that it hands out
/// as raw pointers; these dangle once it has ended, and items that callers hold must be dropped
/// before. Ending: `Exit` and the destructor flush nothing; `FlushAndExit` first sends what the
/// cells hold. Both wait for the flush threads: up to 200 ms for a sleeping one, up to the end of
/// its flush for a working one. Values emitted after the last flush are lost.
class METRICS_API MetricClient : public ClientParts {
 public:
  /// What `CreateMetric` answers: `metric` is null unless `code` is 0.
  struct CreateMetricResult {
    Metric* metric;   ///< the client's
    ReturnCode code;  ///< why there is none
  };

  MetricClient();
  ~MetricClient();
  MetricClient(const MetricClient&) = delete;
  MetricClient& operator=(const MetricClient&) = delete;

  /// Brings the client into service:
  ///
  ///     client.Init(std::make_unique<tidegate::StaticConfiger>(10));  // a flush every 10 seconds
  ///
  /// The client deletes the three objects when it ends. Null for `vendor` and `discovery` selects
  /// `DummyVendor` and `DummyServiceDiscovery`. REQUIRES: `configer` is not null, and the client is
  /// new or has ended. 83 when an object cannot be made; destroy the client then. 17 when a thread
  /// cannot be made: the client has ended then, and `Init` may be called again. After either the
  /// three objects are gone.
  ///
  /// Reads METRICS_MAX_METRICS_PER_REGISTRY, once in the life of the process.
  ReturnCode Init(std::unique_ptr<tidegate::MConfigerImplBase> configer,
                  std::unique_ptr<tidegate::VendorInterface> vendor = nullptr,
                  std::unique_ptr<tidegate::ServiceDiscoveryBase> discovery = nullptr,
                  const CoreInitCfg& cfg = {});
  /// The same with objects that come from `new`. At code 83 they stay the caller's.
  ReturnCode Init(tidegate::MConfigerImplBase* configer_impl, tidegate::VendorInterface* vendor,
                  tidegate::ServiceDiscoveryBase* discovery, const CoreInitCfg& cfg);

  /// Finds or makes a registry. One that exists under the tenant and prefix is given as it is:
  /// the rest of `cfg` does not count then. Two threads that race on a new one: the slower may get
  /// 19. 81 on a client that is not in service.
  ReturnCode CreateRegistry(MetricRegistry*& registry, MetricRegistryCfg cfg);
  /// Finds or makes a registry and a metric in it, as above.
  CreateMetricResult CreateMetric(MetricRegistryCfg registry_cfg, MetricInstanceCfg metric_cfg);

  // From any thread. 20 when there is no such registry, 81 when the client is not in service.
  /// Removes a registry with its metrics and what they had not flushed; it no longer counts
  /// among the 512. The caller must have stopped emitting on its metrics.
  ReturnCode RemoveRegistry(const std::string& prefix, const std::string& tenant);
  /// Refuses emissions on the metrics of a registry, and drops their series, until `UnBlock`.
  ReturnCode Block(const std::string& prefix, const std::string& tenant);
  /// Takes emissions again.
  ReturnCode UnBlock(const std::string& prefix, const std::string& tenant);

  /// Stops all threads and drops everything, unflushed values too. Safe twice. Always 0. In the
  /// child of a `fork`: as `AtFork`.
  ReturnCode Exit();
  /// Sends what the cells hold, then as `Exit`. A flush that was running meanwhile counts as the
  /// last one. In the child of a `fork`: as `AtFork`, nothing is sent. Does nothing on a client
  /// that is not in service.
  void FlushAndExit();
  /// For the child of a `fork`, to be called by the application before anything else of this
  /// client: drops everything without touching the parent's threads, connections or data; nothing
  /// is sent. `Init` may be called again afterwards. Whatever the parent's threads were doing with
  /// this client when it forked, ending it included, does no harm. Does nothing on a client that is
  /// not in service.
  void AtFork();

  /// What this client holds, in lines for people: registries, metrics with their series, cells and
  /// emissions (with self monitoring those since its last report, which takes them), senders with
  /// their last flush and what became of their packets. Of a metric with 100 series or more also
  /// how many values each tag has, exactly below 1024. Then the metric that has gained the most
  /// series since the call before, and the tag of it that has gained the most values. From any
  /// thread, while the client is in service or after its end; walks all series, some 0.2 s for a
  /// million, in some kilobytes for each tag, and waits for a sender that is being made or stopped.
  /// The text may change with every version.
  std::string DebugString() const;

 private:
  /// False when one of the parts cannot be made.
  __attribute__((visibility("hidden"))) bool MakeParts(const CoreInitCfg& cfg);
  /// Owns the three objects from its first step on.
  __attribute__((visibility("hidden"))) ReturnCode Begin(tidegate::MConfigerImplBase* configer,
                                                         tidegate::VendorInterface* vendor,
                                                         tidegate::ServiceDiscoveryBase* discovery,
                                                         const CoreInitCfg& cfg);
  /// False when there is no thread to be had.
  bool StartThreads();
  void ShutDownFactories();
  void ReleaseServices();
  void ReleaseFactories();

  pid_t init_pid_ = 0;                    ///< the process that called `Init`
  std::unique_ptr<SeriesGrowth> growth_;  ///< from one `DebugString` to the next
};

}  // namespace METRICS

#pragma once

#include <memory>

namespace METRICS {

class FlushWatch;
class MetricCollectorFactory;
class MetricConfiger;
class MetricExpireChecker;
class MetricFactory;
class MetricSelfMonitor;
class MetricSenderManager;
class SenderReports;

/// The parts of a client, as they see each other: whoever needs one of them includes its header,
/// and none of them includes the client's.
///
/// Set by `MetricClient::Init`, null otherwise. Applications may use `metric_factory_`, whose
/// `GetRegistry` finds a registry without making it; the others are read by the parts.
struct ClientParts {
  /// Whether all parts are there.
  bool IsWhole() const {
    // The one comes after all parts, the other goes first at the end, while its senders report.
    return sender_reports_ != nullptr && sender_manager_ != nullptr;
  }

  std::shared_ptr<MetricCollectorFactory> collector_factory_;  ///< tables of series
  std::shared_ptr<MetricFactory> metric_factory_;              ///< registries
  std::unique_ptr<MetricConfiger> configer_;                   ///< settings
  std::unique_ptr<MetricExpireChecker> expire_checker_;        ///< expiry
  std::unique_ptr<MetricSelfMonitor> self_monitor_;      ///< the metrics of the library itself
  SenderReports* sender_reports_ = nullptr;              ///< `self_monitor_`, as the senders see it
  std::unique_ptr<MetricSenderManager> sender_manager_;  ///< senders by tenant
  FlushWatch* flush_watch_ = nullptr;  ///< not owned; set before `Init`, by nobody else
};

}  // namespace METRICS

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tidegate/metric_tag.h"

namespace METRICS {

class MetricBasicData;
class MetricCollectorItem;

/// Whom the senders tell about themselves: the self monitor, as they see it.
///
/// Threads: all calls from the flush threads of all tenants and from whoever makes a sender, at
/// once. Outlives the senders. Nothing here can fail a send.
class SenderReports {
 public:
  /// The cell `field` of the series of `tags` in the metric "sender", null if there is none. Fills
  /// `item` with that series first if it is null.
  virtual std::shared_ptr<MetricBasicData> InitSenderMonitorData(
      std::vector<tidegate::MetricTag>&& tags, const std::string& field,
      std::shared_ptr<MetricCollectorItem>& item) const = 0;
  /// Reports `value` microseconds for a flush (`name` "tenant") or a packet ("package").
  virtual void EmitForSenderLatency(const std::string& tenant, const std::string& name,
                                    long value) = 0;
  /// Counts a failed send under the error's text.
  virtual void EmitForSenderFial(const std::string& tenant, const std::string& status) = 0;
  /// Warns of the registries of `tenant` whose interval is no multiple of `interval` seconds, at
  /// which it is flushed.
  virtual void WarnOfIntervals(const std::string& tenant, int interval) = 0;

 protected:
  SenderReports() = default;
  ~SenderReports() = default;
  SenderReports(const SenderReports&) = default;
  SenderReports& operator=(const SenderReports&) = default;
};

}  // namespace METRICS

#pragma once

#include <string>
#include <utility>

namespace tidegate {

/// The settings provider of the application: account identity and flush intervals by tenant.
///
/// Always implemented by the application: `METRICS::MetricClient::Init` needs one. The
/// client calls `Stop` and deletes it when it ends.
/// Threads: `Start` and `Stop` run on the threads of `Init` and of the client's end.
/// `GetTenantInterval` runs on each tenant's flush thread, possibly at the same time as others.
class MConfigerImplBase {
 public:
  /// Identity of the sender, written into every packet. Read once per tenant, when its first
  /// registry is made; `project_id` only counts if the vendor names no service.
  std::string account_id;
  std::string project_id;  ///< see `account_id`

  virtual ~MConfigerImplBase() = default;

  /// Called at the end of `Init`.
  virtual void Start() = 0;
  /// Called once when the client ends, before the object is deleted. Must not throw.
  virtual void Stop() = 0;
  /// The flush interval of `tenant` in whole seconds, with `first` telling whether there is one;
  /// 30 seconds hold otherwise. Asked at most three times when the tenant's first registry is
  /// made, and never again. Must not call the client, which may be waiting for the flush thread.
  virtual std::pair<bool, int> GetTenantInterval(const std::string& tenant) = 0;
  /// Names the fallback service to look up for tenants that are delivered over TCP.
  virtual std::string GetSinkName() = 0;
};

}  // namespace tidegate

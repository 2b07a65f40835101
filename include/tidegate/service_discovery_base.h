#pragma once

#include <string>
#include <utility>

#include "tidegate/endpoint.h"

namespace tidegate {

/// Tells where an agent that is reached over TCP listens.
///
/// Implemented by the application, or left out: `METRICS::DummyServiceDiscovery` names the local
/// machine. The client deletes an object that `METRICS::MetricClient::Init` was given. Its
/// operations are called from threads that make a registry and from flush threads.
class ServiceDiscoveryBase {
 public:
  /// For the addresses of `service_name`.
  explicit ServiceDiscoveryBase(std::string service_name) : name(std::move(service_name)) {}
  virtual ~ServiceDiscoveryBase() = default;

  /// Not called by the library: for the application's own use.
  virtual bool LookUp(std::string service) = 0;
  /// Fills one address of the service. `retry_count` is the sender's count of failed steps, which
  /// wraps and may be reset. False when there is no address.
  virtual bool GetOne(Endpoint& endpoint, signed char& retry_count) = 0;

  /// The service that is looked up.
  std::string name;
};

}  // namespace tidegate

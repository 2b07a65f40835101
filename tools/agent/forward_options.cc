#include "agent/forward_options.h"

#include <tuple>

namespace tidegate::agent {

bool ForwardTarget::operator==(const ForwardTarget& other) const {
  const auto all = [](const ForwardTarget& one) {
    return std::tie(one.url.tls, one.url.host, one.url.port, one.url.target, one.url.user,
                    one.url.password, one.credentials, one.timeout);
  };
  return all(*this) == all(other);
}

bool IsSameBesideTarget(const ForwardOptions& one, const ForwardOptions& other) {
  const auto all = [](const ForwardOptions& o) {
    return std::tie(o.name, o.kind, o.limits.batch_points, o.limits.batch_bytes, o.limits.interval,
                    o.limits.queue_points, o.limits.queue_bytes, o.limits.send.spread,
                    o.limits.send.catch_up, o.spool.folder, o.spool.bytes, o.resource);
  };
  return all(one) == all(other);
}

}  // namespace tidegate::agent

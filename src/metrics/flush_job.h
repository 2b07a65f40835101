#pragma once

#include <cstdint>
#include <string>

namespace METRICS {

class MetricParts;
class RegistryParts;

/// The metric whose series a form packs, with the time and the settings of the flush. Good for that
/// one call.
struct FlushJob {
  const MetricParts& metric;
  const RegistryParts& registry;  ///< that of `metric`
  int64_t boundary;               ///< of the flush, seconds since the epoch
  int32_t interval;               ///< seconds, of `registry`
  bool pre_encode_tags;           ///< items hold their tags in packet form
  const std::string& tenant;

  /// The boundary of the interval before.
  int64_t PreviousBoundary() const { return boundary - interval; }
};

}  // namespace METRICS

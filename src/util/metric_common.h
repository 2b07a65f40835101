#pragma once

#include <cstdint>

#include "util/metric_export.h"

namespace METRICS {

/// Data type of a metric, suffix or field. The values travel in packets and never change.
enum class MetricsType : uint8_t {
  kUnknown = 0,
  kGauge = 1,
  kRate = 2,
  kCounter = 3,
  kMeter = 4,
  kTimer = 5,
  kHistogram = 6,
  kMultiField = 7,  ///< tags a row of several fields in a packet; never the type of one field
  kDeltaCounter = 8,
  kTypeEnd = 9,  ///< end of the enumeration, as invalid as `kUnknown`
};

/// Whether a suffix or field can be of type `type`.
constexpr bool IsCellType(MetricsType type) {
  return type != MetricsType::kUnknown && type != MetricsType::kMultiField &&
         type < MetricsType::kTypeEnd;
}

/// Life of a long-lived object.
enum class MetricState : uint8_t {
  INIT = 0,      ///< made, not yet usable
  READY = 1,     ///< in service
  BLOCKED = 2,   ///< temporarily refused; its data was cleared
  SHUTDOWN = 3,  ///< going away or gone
};

/// Form of a metric, of its collector and of its series items.
enum class MetricCoItemType : uint8_t {
  kCoItemUnknown = 0,
  kCoItemSuffix = 1,      ///< one series has named suffixes, each with a cell of its own
  kCoItemField = 2,       ///< the fields are declared when the metric is made
  kCoItemCompatible = 3,  ///< one cell per series, tag pairs given at emission
};

/// Transport of a tenant. Every value but 0 selects TCP, which is not fit for use: as its exchange
/// is defined, a flush that has a packet to send does not return, nothing is delivered, and
/// stopping waits. Use the Unix domain socket.
enum class MetricSenderType : uint8_t {
  kSenderUnixDomain = 0,
  kSenderTcp = 1,
};

/// Text of `type`, "unknown" for values outside the enumeration. Static storage. It stands in the
/// table of `metrics/cell_kinds.h`.
METRICS_API const char* CovMetricTypeToStr(const MetricsType& type);

}  // namespace METRICS

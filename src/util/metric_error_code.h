#pragma once

#include <cstdint>

#include "util/metric_export.h"

namespace METRICS {

/// Result of an operation; 0 is success. The high four bits group the codes: 1 objects, 2 limits,
/// 3 invalid input, 4 environment and state, 5 internal faults. Values never change.
enum class ReturnCode : uint8_t {
  kOk = 0,
  kAllocCollectorError = 17,
  kObjectExisted = 19,
  kObjectNotExisted = 20,
  kObjectBlocked = 22,
  kObjectExit = 23,
  kMaxRegistry = 33,
  kMaxMetric = 34,
  kMaxTagPair = 35,
  kMaxHistoBucket = 36,
  kTagNumExceeded = 37,
  kFieldNumExceeded = 38,
  kTagConflict = 49,
  kUnknownTagName = 50,
  kDuplicatedTagName = 51,
  kInvalidMetricType = 52,
  kInvalidString = 53,
  kInvalidParamNumber = 54,
  kCreateSocketFailed = 66,
  kSocketTestFailed = 67,
  kGetEnvFailed = 68,
  kUnknownState = 69,
  kNotSupported = 70,
  kNullptr = 81,
  kInternalError = 82,
  kNewObjectFail = 83,
};

/// The text of `code`, or null for `kOk` and for values that are no code. Static storage, safe
/// from any thread.
METRICS_API const char* MetricGetErrorCodeStr(ReturnCode code);

}  // namespace METRICS

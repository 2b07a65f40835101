#include "util/metric_error_code.h"

namespace METRICS {

// A switch instead of a table: nothing is built, and nothing is written by a look-up.
const char* MetricGetErrorCodeStr(ReturnCode code) {
  switch (code) {
    case ReturnCode::kOk:
      return nullptr;
    case ReturnCode::kAllocCollectorError:
      return "Alloc new collector error before emit.";
    case ReturnCode::kObjectExisted:
      return "Object already EXISTED, create twice not allowed.";
    case ReturnCode::kObjectNotExisted:
      return "Object NOT EXISTED, try create first.";
    case ReturnCode::kObjectBlocked:
      return "Object been BLOCKED, try unblock first.";
    case ReturnCode::kObjectExit:
      return "Object been EXIT, will be delete soon.";
    case ReturnCode::kMaxRegistry:
      return "Reach max registry num [512]";
    case ReturnCode::kMaxMetric:
      return "Maximum [1024] metrics per registry.";
    case ReturnCode::kMaxTagPair:
      return "Maximum [255] pairs of tag allowed.";
    case ReturnCode::kMaxHistoBucket:
      return "Maximum [100] buckets of histogram allowed.";
    case ReturnCode::kTagNumExceeded:
      return "Tag num when emit is more than declared tag name.";
    case ReturnCode::kFieldNumExceeded:
      return "Field num is more than allowed.";
    case ReturnCode::kTagConflict:
      return "Declared Tag Name can Not be same with global_tags or vendor inserted tags";
    case ReturnCode::kUnknownTagName:
      return "Unknown tag-name. Tag-name must be pre-defined when create metric.";
    case ReturnCode::kDuplicatedTagName:
      return "Duplicated tag-name not allowed.";
    case ReturnCode::kInvalidMetricType:
      return "Invalid metric type, see util/metric_common MetricsType";
    case ReturnCode::kInvalidString:
      return "Invalid string.";
    case ReturnCode::kInvalidParamNumber:
      return "Invalid Param number.";
    case ReturnCode::kCreateSocketFailed:
      return "Create socket failed.";
    case ReturnCode::kSocketTestFailed:
      return "Socket connection test failed.";
    case ReturnCode::kGetEnvFailed:
      return "Get dc/host from env failed.";
    case ReturnCode::kUnknownState:
      return "Unknown running state, internal data error.";
    case ReturnCode::kNotSupported:
      return "Such operation not supported.";
    case ReturnCode::kNullptr:
      return "nullptr error.";
    case ReturnCode::kInternalError:
      return "SDK internal Error.";
    case ReturnCode::kNewObjectFail:
      return "SDK new object Fail.";
  }
  return nullptr;
}

}  // namespace METRICS

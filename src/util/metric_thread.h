#pragma once

#include <system_error>
#include <thread>
#include <utility>

#include "util/metric_error_code.h"
#include "util/metric_log.h"

namespace METRICS {

/// Starts `work` in `thread`. 17, with an Error line and `thread` as it was, when the system has no
/// thread to give.
template <class... Work>
ReturnCode StartThread(std::thread& thread, const char* name, Work&&... work) {
  try {
    thread = std::thread(std::forward<Work>(work)...);
  } catch (const std::system_error& error) {
    METRICS_LOG_ERROR("Thread %s not started: %s\n", name, error.what());
    return ReturnCode::kAllocCollectorError;
  }
  return ReturnCode::kOk;
}

}  // namespace METRICS

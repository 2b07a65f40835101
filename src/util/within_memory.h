#pragma once

#include <new>

#include "util/metric_log.h"

namespace METRICS {

/// Runs `work` on a thread that must not end by it. False, with an Error line that says whose
/// `what` is given up, when memory runs out.
template <class Work>
bool RunWithinMemory(const char* whose, const char* what, Work&& work) {
  try {
    work();
  } catch (const std::bad_alloc&) {
    METRICS_LOG_ERROR("%s: out of memory, %s given up\n", whose, what);
    return false;
  }
  return true;
}

}  // namespace METRICS

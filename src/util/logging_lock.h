#pragma once

#include "util/log_scope.h"
#include "util/metric_lock.h"

namespace METRICS {

/// Locks under which lines of the log are written: their guards hand them out once the lock is
/// free. Not for a lock that emissions take.
class METRICS_THREAD_ATTR(capability("rwlock")) LoggingRwLock : public RwLock {};
class METRICS_THREAD_ATTR(capability("mutex")) LoggingMutex : public Mutex {};

template <>
class AroundLock<LoggingRwLock> : LogScope {};
template <>
class AroundLock<LoggingMutex> : LogScope {};

}  // namespace METRICS

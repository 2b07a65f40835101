#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>

#include "metrics/in_flight_count.h"
#include "util/metric_lock.h"

namespace METRICS {

/// The counts of a `tidegate::Metrics`, one for each series of them. It only grows.
///
/// Threads: `Find` from any thread. Fork: the list can be walked at each moment.
class InFlightTable {
 public:
  InFlightTable();
  InFlightTable(const InFlightTable&) = delete;
  InFlightTable& operator=(const InFlightTable&) = delete;
  ~InFlightTable();

  /// The count of `key`, which is made if it is new.
  InFlightCount& Find(const std::string& key);
  /// For the child of a fork. Does nothing in the process that the table serves.
  void AtFork();

 private:
  Mutex mutex_;  ///< of whoever adds
  std::atomic<InFlightCount*> newest_{nullptr};
  pid_t process_;
};

}  // namespace METRICS

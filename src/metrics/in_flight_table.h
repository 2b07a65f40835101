#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <string>

#include "metrics/in_flight_count.h"
#include "tidegate/handles.h"
#include "util/metric_lock.h"

namespace METRICS {

/// The counts of a `tidegate::Metrics`, one for each series of them, by a hash. It only grows.
///
/// Threads: `Find` from any thread, `Report` from one at a time. Fork: the chains can be walked at
/// each moment.
class InFlightTable {
 public:
  InFlightTable();
  InFlightTable(const InFlightTable&) = delete;
  InFlightTable& operator=(const InFlightTable&) = delete;
  ~InFlightTable();

  /// The count of `key`. If it is new it is made, and is reported by `gauge` from then on.
  InFlightCount& Find(const std::string& key, const tidegate::BoundGauge& gauge);
  /// Sets the gauges of all counts. Takes no lock.
  void Report() const;
  /// For the child of a fork. Does nothing in the process that the table serves.
  void AtFork();

 private:
  struct Entry {
    const std::string key;
    const tidegate::BoundGauge gauge;
    InFlightCount* const count;
    Entry* const older;  ///< in its chain
  };
  static constexpr size_t kChains = 1024;

  template <class Action>
  void ForEach(Action action) const;

  Mutex mutex_;  ///< of whoever adds
  std::array<std::atomic<Entry*>, kChains> newest_{};
  pid_t process_;
};

}  // namespace METRICS

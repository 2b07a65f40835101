#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "tidegate/service_metrics.h"

namespace METRICS {

/// The numbers that the kernel has of this process, as metrics. docs/guide.md lists them.
///
/// `Report` is called by one thread at a time, once per interval. In the child of a fork it begins
/// anew with the child's numbers. A source that cannot be read is told once, by a Warn line, and
/// its metrics have no values. Allocates nothing once its metrics have been made.
class ProcessMetrics {
 public:
  /// `folder` is that of the process in the file system of the kernel.
  explicit ProcessMetrics(tidegate::Metrics& metrics, std::string folder = "/proc/self");

  void Report();

 private:
  /// A total of the kernel, whose increases are counted.
  struct Total {
    Total(tidegate::Metrics& metrics, const char* name);
    /// `unit` is what one of `total` counts for.
    template <class Unit>
    void Report(uint64_t total, Unit unit);

    tidegate::BoundAdder<MetricsType::kCounter> counter;
    uint64_t reported = 0;
  };
  struct Source {
    std::string path;
    bool told = false;
    void TellFailure(const char* why);
  };

  void BeginProcess();
  void ReportStat();
  void ReportUsage();
  void ReportDescriptors();

  pid_t process_ = 0;  ///< whose totals were reported
  bool start_counted_ = false;
  double start_seconds_ = 0;  ///< since the epoch; 0: not known yet

  Source stat_source_;
  Source descriptors_source_;

  tidegate::BoundAdder<MetricsType::kDeltaCounter> starts_;
  Total user_, system_;
  Total minor_faults_, major_faults_;
  Total voluntary_switches_, involuntary_switches_;
  tidegate::BoundGauge resident_, virtual_, threads_, start_time_, descriptors_, limit_;
};

}  // namespace METRICS

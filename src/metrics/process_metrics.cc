#include "metrics/process_metrics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "util/metric_log.h"
#include "util/proc_stat.h"

namespace METRICS {
namespace {

double TicksPerSecond() { return static_cast<double>(::sysconf(_SC_CLK_TCK)); }

/// When something was that happened `ticks` after the machine's start, in seconds since the epoch.
double TimeOfTicks(uint64_t ticks) {
  // The kernel's clocks, also where a test moves that of the library.
  timespec now{};
  timespec since_boot{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  ::clock_gettime(CLOCK_BOOTTIME, &since_boot);
  const auto seconds = [](const timespec& time) {
    constexpr double kNanos = 1e9;
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / kNanos;
  };
  return seconds(now) - seconds(since_boot) + static_cast<double>(ticks) / TicksPerSecond();
}

}  // namespace

ProcessMetrics::Total::Total(tidegate::Metrics& metrics, const char* name)
    : counter(metrics.Counter(name).With({})) {}

template <class Unit>
void ProcessMetrics::Total::Report(uint64_t total, Unit unit) {
  // An increase that is refused, as while metrics are blocked, comes with the next one. The kernel
  // may correct a total downwards.
  if (total >= reported &&
      counter.Add(static_cast<Unit>(total - reported) * unit) == ReturnCode::kOk) {
    reported = total;
  }
}

void ProcessMetrics::Source::TellFailure(const char* why) {
  if (!std::exchange(told, true)) {
    METRICS_LOG_WARN("Process metrics without %s: %s\n", path.c_str(), why);
  }
}

ProcessMetrics::ProcessMetrics(tidegate::Metrics& metrics, std::string folder)
    : stat_source_{folder + "/stat"},
      descriptors_source_{folder + "/fd"},
      starts_(metrics.DeltaCounter("process.starts").With({})),
      user_(metrics, "process.cpu.user_seconds"),
      system_(metrics, "process.cpu.system_seconds"),
      minor_faults_(metrics, "process.page_faults.minor"),
      major_faults_(metrics, "process.page_faults.major"),
      voluntary_switches_(metrics, "process.context_switches.voluntary"),
      involuntary_switches_(metrics, "process.context_switches.involuntary"),
      resident_(metrics.Gauge("process.memory.resident_bytes").With({})),
      virtual_(metrics.Gauge("process.memory.virtual_bytes").With({})),
      threads_(metrics.Gauge("process.threads").With({})),
      start_time_(metrics.Gauge("process.start_time_seconds").With({})),
      descriptors_(metrics.Gauge("process.descriptors.open").With({})),
      limit_(metrics.Gauge("process.descriptors.limit").With({})) {}

void ProcessMetrics::Report() {
  if (process_ != ::getpid()) {
    BeginProcess();
  }
  if (!start_counted_) {
    start_counted_ = starts_.Add(1) == ReturnCode::kOk;
  }
  ReportStat();
  ReportUsage();
  ReportDescriptors();
}

void ProcessMetrics::BeginProcess() {
  process_ = ::getpid();
  start_counted_ = false;
  start_seconds_ = 0;
  for (Total* total : {&user_, &system_, &minor_faults_, &major_faults_, &voluntary_switches_,
                       &involuntary_switches_}) {
    total->reported = 0;
  }
}

void ProcessMetrics::ReportStat() {
  char buffer[2048];
  const auto text = ReadBeginning(stat_source_.path.c_str(), buffer, sizeof(buffer));
  if (!text.has_value()) {
    stat_source_.TellFailure(std::strerror(errno));
    return;
  }
  const std::optional<ProcStat> stat = ParseProcStat(*text);
  if (!stat.has_value()) {
    stat_source_.TellFailure("the text is not as expected");
    return;
  }
  const double second = 1 / TicksPerSecond();
  user_.Report(stat->user_ticks, second);
  system_.Report(stat->system_ticks, second);
  minor_faults_.Report(stat->minor_faults, uint64_t{1});
  major_faults_.Report(stat->major_faults, uint64_t{1});
  resident_.Set(stat->resident_pages * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE)));
  virtual_.Set(stat->virtual_bytes);
  threads_.Set(stat->threads);
  if (start_seconds_ == 0) {
    start_seconds_ = TimeOfTicks(stat->start_ticks);
  }
  start_time_.Set(start_seconds_);
}

void ProcessMetrics::ReportUsage() {
  // Not from the files of the kernel: these count the switches of each thread that lives.
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  voluntary_switches_.Report(static_cast<uint64_t>(usage.ru_nvcsw), uint64_t{1});
  involuntary_switches_.Report(static_cast<uint64_t>(usage.ru_nivcsw), uint64_t{1});
}

void ProcessMetrics::ReportDescriptors() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    limit_.Set(limit.rlim_cur);
  }
  const std::optional<uint64_t> open = CountDescriptors(descriptors_source_.path.c_str());
  if (open.has_value()) {
    descriptors_.Set(*open);
  } else {
    descriptors_source_.TellFailure(std::strerror(errno));
  }
}

}  // namespace METRICS

#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "metrics/histo_util.h"
#include "metrics/metric_client.h"
#include "tidegate/error_counter.h"
#include "tidegate/handles.h"
#include "tidegate/in_flight.h"
#include "tidegate/metric_tag.h"
#include "tidegate/options.h"
#include "tidegate/sampler.h"
#include "util/metric_error_code.h"
#include "util/metric_export.h"

namespace METRICS {

class InFlightTable;
class ServiceCore;
struct MetricDefinition;

}  // namespace METRICS

namespace tidegate {

/// The metrics of a service, in one object for the process:
///
///     tidegate::Metrics metrics("shop");
///     tidegate::Counter requests = metrics.Counter("requests", {"method", "status"});
///     requests.Add(1, {{"method", method}, {"status", 200}});
///
/// It owns a client with one registry, in service from the construction on, and sends what is in
/// memory at its end. Options that are no good leave it out of service, with one Error line; its
/// handles do nothing then, and it says why when asked. The names of its metrics begin with
/// the prefix; each number travels under the name of its metric.
///
/// Threads: all operations from any thread, but for the destructor, and for `AtFork` and `Init`,
/// which come before the child has other threads. Handles may be used at any time, also while it
/// ends. Making the same metric twice gives handles of one metric. A metric that cannot be made
/// gives a handle that does nothing and says why, with one Error line: a bad name, the limit of
/// metrics, or a metric of that name with another kind, other tag names, bounds, fields or options.
class METRICS_API Metrics {
 public:
  /// With the defaults of `Options`.
  explicit Metrics(std::string service);
  explicit Metrics(Options options);  ///< as they say
  /// `Stop`.
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  /// Whether it is in service.
  explicit operator bool() const;
  /// Why it is not, in English; empty if it is.
  std::string Error() const;

  /// How much altogether: the total of each series.
  tidegate::Counter Counter(std::string name, TagNames tags = {}, MetricOptions options = {});
  /// How often per second.
  tidegate::Rate Rate(std::string name, TagNames tags = {}, MetricOptions options = {});
  /// How much altogether, and how fast.
  tidegate::Meter Meter(std::string name, TagNames tags = {}, MetricOptions options = {});
  /// The same, and the increase of each interval.
  tidegate::DeltaCounter DeltaCounter(std::string name, TagNames tags = {},
                                      MetricOptions options = {});
  /// How much there is right now.
  tidegate::Gauge Gauge(std::string name, TagNames tags = {}, MetricOptions options = {});
  /// How long things take: minimum, maximum, average, sum, count and percentiles, in microseconds.
  tidegate::Timer Timer(std::string name, TagNames tags = {}, MetricOptions options = {});
  /// How values spread over the buckets that `bounds` begin; samples below the first are dropped.
  tidegate::Histogram Histogram(std::string name, const METRICS::HistoUtil& bounds,
                                TagNames tags = {}, MetricOptions options = {});
  /// The same with ascending bounds as they are.
  tidegate::Histogram Histogram(std::string name, std::vector<double> bounds, TagNames tags = {},
                                MetricOptions options = {});
  /// Several numbers per series; `TypedField` shows how.
  tidegate::Row Row(std::string name, TagNames tags, std::vector<Field> fields,
                    MetricOptions options = {});

  /// A gauge that `read` is asked for once per interval, until the result ends; `Sampler` says
  /// when, and what becomes of one that throws or hangs. NaN: no value in that interval. Of two
  /// samplers of one series any may stand. The sampler is empty, and says why, where `read` is,
  /// where the gauge cannot be made, and where there is no thread to be had.
  Sampler Sample(std::string name, std::function<double()> read);
  /// The same with tags. The samplers of one name have the same tag names.
  Sampler Sample(std::string name, std::vector<MetricTag> tags, std::function<double()> read);
  /// A gauge of open scopes, until the end. The same name and tags twice: the same count.
  tidegate::InFlight InFlight(std::string name, std::vector<MetricTag> tags = {});
  /// A counter of errors, with an Error line per `period` at most.
  ErrorCounter Errors(std::string name, TagNames tags = {},
                      std::chrono::seconds period = std::chrono::minutes(1));
  /// Samples what the kernel knows of this process, until the end: metrics whose names begin with
  /// "process.", see docs/guide.md. The second time nothing. What cannot be read is left out, with
  /// a Warn line.
  void AddProcessMetrics();
  /// Samples what the C library's allocator knows of its memory, until the end: metrics
  /// whose names begin with "allocator.". The second time nothing. Where the allocator is another
  /// one, or the library has no `mallinfo2`, there are none, with a Warn line.
  void AddAllocatorMetrics();

  /// For the child of a fork, before anything else of it and of its handles: forgets what the
  /// parent's threads were doing. Nothing is sent. Handles do nothing until `Init`. A child that
  /// does not go on with it may leave this out. Does nothing in the process that it serves.
  void AtFork();
  /// After `AtFork`: brings it into service again, and with it all handles, bound ones too. Their
  /// numbers begin anew. Else changes nothing. Whether it is in service.
  bool Init();
  /// Sends what is in memory and ends, before the destructor does: emissions answer 23 from then
  /// on, on bound handles 70. A flush that is running counts as the last one. In the child of a
  /// fork: `AtFork`.
  void Stop();

  /// Drops all series, and refuses emissions until `UnBlock`: with 70, on bound handles with 22. 23
  /// if it is not in service.
  ReturnCode Block();
  /// Takes emissions again, of bound handles too.
  ReturnCode UnBlock();

  /// The layer below, which this object ends.
  METRICS::MetricClient& Client();
  /// What it holds, in lines for people; see `MetricClient::DebugString`.
  std::string DebugString() const;

 private:
  template <class HandleType>
  __attribute__((visibility("hidden"))) HandleType Make(METRICS::MetricsType type, std::string name,
                                                        TagNames tags, MetricOptions options,
                                                        std::vector<double> bounds = {},
                                                        std::vector<Field> fields = {});

  template <class Numbers>
  __attribute__((visibility("hidden"))) void AddNumbers(const char* name);

  __attribute__((visibility("hidden"))) BoundGauge GaugeOf(const std::string& name,
                                                           const std::vector<MetricTag>& tags);

  const std::shared_ptr<METRICS::InFlightTable> in_flight_;
  const std::shared_ptr<METRICS::SamplerThread> samplers_;
  const std::shared_ptr<METRICS::ServiceCore> core_;
};

}  // namespace tidegate

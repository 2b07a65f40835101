// What `tidegate::Metrics` samples.

#include <algorithm>
#include <cmath>
#include <memory>
#include <utility>

#include "metrics/allocator_metrics.h"
#include "metrics/in_flight_table.h"
#include "metrics/process_metrics.h"
#include "metrics/sampler_thread.h"
#include "metrics/service_core.h"
#include "tidegate/service_metrics.h"
#include "util/metric_log.h"

namespace tidegate {

Sampler Metrics::Sample(std::string name, std::function<double()> read) {
  return Sample(std::move(name), {}, std::move(read));
}

Sampler Metrics::Sample(std::string name, std::vector<MetricTag> tags,
                        std::function<double()> read) {
  if (read == nullptr) {
    return METRICS::SamplerThread::Refuse("there is no callback");
  }
  const BoundGauge gauge = GaugeOf(name, tags);
  if (!gauge) {
    return METRICS::SamplerThread::Refuse(gauge.Error());
  }
  return samplers_->Add(std::move(name), [gauge, read = std::move(read)] {
    const double number = read();
    if (!std::isnan(number)) {
      gauge.Set(number);
    }
  });
}

BoundGauge Metrics::GaugeOf(const std::string& name, const std::vector<MetricTag>& tags) {
  TagNames names;
  for (const MetricTag& tag : tags) {
    names.push_back(tag.key);
  }
  return Gauge(name, std::move(names)).With(tags);
}

tidegate::InFlight Metrics::InFlight(std::string name, std::vector<MetricTag> tags) {
  const BoundGauge gauge = GaugeOf(name, tags);
  if (!gauge) {
    return tidegate::InFlight(gauge);
  }
  std::sort(tags.begin(), tags.end());
  for (const MetricTag& tag : tags) {
    name += ',' + tag.key + '=' + tag.value;  // no comma is in these, and no '=' in a key
  }
  const tidegate::InFlight handle(in_flight_->Find(name, gauge), gauge);
  samplers_->Keep("in flight", [counts = in_flight_] { counts->Report(); });
  return handle;
}

template <class Numbers>
void Metrics::AddNumbers(const char* name) {
  if (core_->InService()) {
    const auto numbers = std::make_shared<Numbers>(*this);
    samplers_->Keep(name, [numbers] { numbers->Report(); });
  }
}

void Metrics::AddProcessMetrics() { AddNumbers<METRICS::ProcessMetrics>("process"); }

void Metrics::AddAllocatorMetrics() {
  if (METRICS::AllocatorMetrics::CanSay()) {
    AddNumbers<METRICS::AllocatorMetrics>("allocator");
  } else {
    METRICS_LOG_WARN("Allocator metrics: the allocator of this process cannot say\n");
  }
}

}  // namespace tidegate

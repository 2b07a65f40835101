// What `tidegate::Metrics` samples.

#include <cmath>
#include <memory>
#include <utility>

#include "metrics/allocator_metrics.h"
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
  TagNames names;
  for (const MetricTag& tag : tags) {
    names.push_back(tag.key);
  }
  const BoundGauge gauge = Gauge(name, std::move(names)).With(tags);
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

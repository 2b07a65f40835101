#include "tidegate/service_metrics.h"

#include <algorithm>

#include "metrics/in_flight_table.h"
#include "metrics/sampler_thread.h"
#include "metrics/service_core.h"

namespace tidegate {
namespace {

Options OptionsOf(std::string service) {
  Options options;
  options.service = std::move(service);
  return options;
}

}  // namespace

Metrics::Metrics(std::string service) : Metrics(OptionsOf(std::move(service))) {}

Metrics::Metrics(Options options)
    : in_flight_(std::make_shared<METRICS::InFlightTable>()),
      samplers_(std::make_shared<METRICS::SamplerThread>(options.interval.count())),
      core_(std::make_shared<METRICS::ServiceCore>(std::move(options))) {
  core_->Client().flush_watch_ = samplers_.get();
  core_->Start();
}

Metrics::~Metrics() {
  Stop();
  core_->LetSlotsGo();
}

Metrics::operator bool() const { return core_->InService(); }
std::string Metrics::Error() const { return core_->Error(); }

template <class HandleType>
HandleType Metrics::Make(MetricsType type, std::string name, TagNames tags, MetricOptions options,
                         std::vector<double> bounds, std::vector<Field> fields) {
  return HandleType(core_->Make({type, std::move(name), std::move(tags), std::move(options),
                                 std::move(bounds), std::move(fields)}));
}

tidegate::Counter Metrics::Counter(std::string name, TagNames tags, MetricOptions options) {
  return Make<tidegate::Counter>(MetricsType::kCounter, std::move(name), std::move(tags),
                                 std::move(options));
}

tidegate::Rate Metrics::Rate(std::string name, TagNames tags, MetricOptions options) {
  return Make<tidegate::Rate>(MetricsType::kRate, std::move(name), std::move(tags),
                              std::move(options));
}

tidegate::Meter Metrics::Meter(std::string name, TagNames tags, MetricOptions options) {
  return Make<tidegate::Meter>(MetricsType::kMeter, std::move(name), std::move(tags),
                               std::move(options));
}

tidegate::DeltaCounter Metrics::DeltaCounter(std::string name, TagNames tags,
                                             MetricOptions options) {
  return Make<tidegate::DeltaCounter>(MetricsType::kDeltaCounter, std::move(name), std::move(tags),
                                      std::move(options));
}

tidegate::Gauge Metrics::Gauge(std::string name, TagNames tags, MetricOptions options) {
  return Make<tidegate::Gauge>(MetricsType::kGauge, std::move(name), std::move(tags),
                               std::move(options));
}

tidegate::Timer Metrics::Timer(std::string name, TagNames tags, MetricOptions options) {
  return Make<tidegate::Timer>(MetricsType::kTimer, std::move(name), std::move(tags),
                               std::move(options));
}

tidegate::Histogram Metrics::Histogram(std::string name, const METRICS::HistoUtil& bounds,
                                       TagNames tags, MetricOptions options) {
  return Histogram(std::move(name), bounds.bounds, std::move(tags), std::move(options));
}

tidegate::Histogram Metrics::Histogram(std::string name, std::vector<double> bounds, TagNames tags,
                                       MetricOptions options) {
  return Make<tidegate::Histogram>(MetricsType::kHistogram, std::move(name), std::move(tags),
                                   std::move(options), std::move(bounds));
}

tidegate::Row Metrics::Row(std::string name, TagNames tags, std::vector<Field> fields,
                           MetricOptions options) {
  return Make<tidegate::Row>(MetricsType::kMultiField, std::move(name), std::move(tags),
                             std::move(options), {}, std::move(fields));
}

ErrorCounter Metrics::Errors(std::string name, TagNames tags, std::chrono::seconds period) {
  constexpr std::chrono::seconds kLongest = std::chrono::hours(24 * 365);
  period = std::clamp(period, std::chrono::seconds(0), kLongest);
  auto log = std::make_shared<METRICS::ErrorLog>(name, period);
  return {Counter(std::move(name), std::move(tags)), std::move(log)};
}

void Metrics::AtFork() {
  in_flight_->AtFork();
  samplers_->AtFork();
  core_->AtFork();
}
bool Metrics::Init() {
  const bool in_service = core_->Init();
  if (in_service) {
    samplers_->Resume();
  }
  return in_service;
}
void Metrics::Stop() {
  samplers_->Stop();
  core_->Stop();
}
ReturnCode Metrics::Block() { return core_->Block(); }
ReturnCode Metrics::UnBlock() { return core_->UnBlock(); }
METRICS::MetricClient& Metrics::Client() { return core_->Client(); }
std::string Metrics::DebugString() const { return core_->DebugString(); }

}  // namespace tidegate

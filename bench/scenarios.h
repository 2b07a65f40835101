#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "metrics/metric_client.h"
#include "tidegate/static_configer.h"
#include "tidegate/static_vendor.h"
#include "workload.h"

// The library's side of the scenarios, and a client whose own threads sleep through the
// measurement.

namespace tidegate::bench {

inline std::vector<MetricTag> Tags(size_t series, size_t count, Length length = Length::kTen) {
  const std::vector<std::string> names = TagNames(count);
  std::vector<std::string> values = TagValues(series, count, length);
  std::vector<MetricTag> tags;
  tags.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    tags.emplace_back(names[i], std::move(values[i]));
  }
  return tags;
}

// An initialised, silent client with one registry.
class Client {
 public:
  // Seconds, far beyond any benchmark.
  static constexpr int kNever = 2000000;

  struct Options {
    // Without expiry: to a pass, a series is idle until its first emission.
    METRICS::CoreInitCfg core{false, false};
    int interval = kNever;
    std::string socket{"/tmp/nobody.listens.here"};
  };

  Client() : Client(Options()) {}
  explicit Client(const Options& options) {
    METRICS::g_metricsLogLevel = 4;
    client_.Init(std::make_unique<StaticConfiger>(options.interval),
                 std::make_unique<StaticVendor>(options.socket), nullptr, options.core);
    METRICS::MetricRegistryCfg cfg;
    cfg.tenant = "bench";
    cfg.prefix = "app";
    client_.CreateRegistry(registry_, cfg);
  }

  METRICS::MetricClient& operator*() { return client_; }
  METRICS::MetricClient* operator->() { return &client_; }
  METRICS::MetricRegistry& registry() { return *registry_; }

  // A benchmark of a metric that was refused would measure nothing: it ends here.
  METRICS::Metric& Make(const METRICS::MetricInstanceCfg& cfg) {
    METRICS::Metric* metric = nullptr;
    return Checked(metric, registry_->CreateMetric(metric, cfg));
  }
  METRICS::Metric& Make(const std::string& name, size_t tags) {
    METRICS::MetricInstanceCfg cfg;
    cfg.name = name;
    cfg.tag_names = TagNames(tags);
    return Make(cfg);
  }
  METRICS::Metric& MakeCompatible(const std::string& name, METRICS::MetricsType type) {
    METRICS::MetricRegistry::MetricInitCfg init;
    init.kind = METRICS::MetricCoItemType::kCoItemCompatible;
    init.cfg.name = name;
    METRICS::Metric* metric = nullptr;
    METRICS::Metric& made = Checked(metric, registry_->CreateMetric(metric, init));
    made.SetCompatibleType(type);
    return made;
  }

 private:
  static METRICS::Metric& Checked(METRICS::Metric*& metric, METRICS::ReturnCode code) {
    if (metric == nullptr) {
      std::fprintf(stderr, "no metric: %s\n", METRICS::MetricGetErrorCodeStr(code));
      std::abort();
    }
    return *metric;
  }

  METRICS::MetricClient client_;
  METRICS::MetricRegistry* registry_ = nullptr;
};

// One for all benchmarks of a process. Never ended: threads that emit outlive a benchmark's body.
inline Client& SharedClient() {
  static Client& client = *new Client();
  return client;
}

}  // namespace tidegate::bench

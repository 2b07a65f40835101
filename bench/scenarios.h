#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "metrics/metric_client.h"
#include "tidegate/static_configer.h"
#include "tidegate/static_vendor.h"

// Shared by all benchmarks: the same tags and samples for the library and its peer, and a
// client whose own threads sleep through the measurement.

namespace tidegate::bench {

// Series of the benchmarks of one emission, visited round robin, by each thread in the same order.
constexpr size_t kSeries = 100;

inline std::vector<std::string> TagNames(size_t count) {
  static const std::vector<std::string> names{"endpoint", "instance", "operation"};
  return {names.begin(), names.begin() + static_cast<std::ptrdiff_t>(count)};
}

// Tag values of series number `series`: 10 characters each. With three tags a registry of
// 100,000 series is one of 10 endpoints, 100 instances and 100 operations.
inline std::vector<std::string> TagValues(size_t series, size_t count) {
  const auto text = [](const char* format, size_t number) {
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), format, number);
    return std::string(buffer);
  };
  if (count == 1) {
    return {text("ep-%07zu", series)};
  }
  return {text("ep-%07zu", series % 10), text("host-%05zu", series / 10 % 100),
          text("op-%07zu", series / 1000)};
}

inline std::vector<MetricTag> Tags(size_t series, size_t count) {
  const std::vector<std::string> names = TagNames(count);
  std::vector<std::string> values = TagValues(series, count);
  std::vector<MetricTag> tags;
  tags.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    tags.emplace_back(names[i], std::move(values[i]));
  }
  return tags;
}

// `make(series)` for each of `count` series.
template <class Make>
auto ForEachSeries(Make make, size_t count = kSeries) {
  std::vector<decltype(make(size_t{0}))> all;
  all.reserve(count);
  for (size_t series = 0; series < count; ++series) {
    all.push_back(make(series));
  }
  return all;
}

// `count` values from 0 up to 1e6, the same in every run.
inline std::vector<double> Samples(size_t count) {
  std::vector<double> samples(count);
  uint64_t state = 20260101;
  for (double& sample : samples) {
    state = state * 6364136223846793005 + 1442695040888963407;
    sample = static_cast<double>(state >> 40) * 1e6 / (1 << 24);
  }
  return samples;
}

// Bounds that share those samples out evenly.
inline std::vector<double> Bounds(size_t count) {
  std::vector<double> bounds(count);
  for (size_t i = 0; i < count; ++i) {
    bounds[i] = 1e6 / static_cast<double>(count) * static_cast<double>(i);
  }
  return bounds;
}

// Goes round 0 .. size - 1.
class RoundRobin {
 public:
  explicit RoundRobin(size_t size) : size_(size) {}
  size_t Next() {
    const size_t at = next_;
    next_ = next_ + 1 == size_ ? 0 : next_ + 1;
    return at;
  }

 private:
  const size_t size_;
  size_t next_ = 0;
};

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
    client_.Init(new StaticConfiger({options.interval}), new StaticVendor({options.socket}),
                 nullptr, options.core);
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

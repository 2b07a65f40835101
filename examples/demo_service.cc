// demo_service [SOCKET_PATH] [--seconds N] [--self-monitor]: emits for N seconds (10) as a small
// web shop would, and prints its totals at the end. Run tidegate-agent on the same path to see the
// points arrive. With --self-monitor the library reports on itself, each second.

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "metrics/metric_client.h"

namespace {

using METRICS::Add;
using METRICS::Incr;
using METRICS::IncrCounter;
using METRICS::IncrMeter;
using METRICS::Metric;
using METRICS::MetricsType;
using METRICS::Observe;
using METRICS::Stat;
using METRICS::Store;
using METRICS::WithField;
using METRICS::WithSuffix;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kFlushSeconds = 1;
constexpr int kRequestThreads = 3;
constexpr std::array<int, 5> kSizeBounds = {0, 500, 1000, 2000, 4000};  // bytes, lower ends

// Where a real service would ask its configuration.
class Settings : public tidegate::MConfigerImplBase {
 public:
  Settings() {
    account_id = "demo";
    project_id = "shop";
  }
  void Start() override {}
  void Stop() override {}
  std::pair<bool, int> GetTenantInterval(const std::string& /*tenant*/) override {
    return {true, kFlushSeconds};
  }
  std::string GetSinkName() override { return {}; }
};

// The machine: where its agent listens, and the tags that every series gets from it.
class Machine : public METRICS::DummyVendor {
 public:
  explicit Machine(std::string socket_path) : socket_path_(std::move(socket_path)) {
    ImmutableTags() = {{"host", "demo-1"}};
    RewritableTags() = {{"zone", "local"}};
  }

  std::string GetSenderOutPath() override { return socket_path_; }

 private:
  const std::string socket_path_;
};

struct Options {
  std::string socket_path = "/opt/tmp/sock/metric_seqpacket.sock";
  int seconds = 10;
  bool self_monitor = false;
};

bool Parse(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--seconds" && i + 1 < argc) {
      options->seconds = std::atoi(argv[++i]);
    } else if (argument == "--self-monitor") {
      options->self_monitor = true;
    } else if (argument.empty() || argument[0] == '-') {
      return false;
    } else {
      options->socket_path = argument;
    }
  }
  return options->seconds > 0;
}

// Every kind of number and every form of metric.
struct Metrics {
  Metric* requests;     // suffixes: a rate, a counter of bytes, a timer of ten gauges
  Metric* connections;  // a meter
  Metric* upstream;     // a timer that travels as one row, its percentiles estimated
  Metric* sizes;        // a histogram
  Metric* queue;        // a gauge
  Metric* orders;       // a delta counter
  Metric* clerk;        // a row of declared fields
  Metric* cache;        // a compatible gauge: its tags are named at emission
};

// The shop: requests come in, some of them leave an order in the queue, and a clerk packs orders.
// Its threads run until the time is up.
class Shop {
 public:
  explicit Shop(const Metrics& metrics) : metrics_(metrics) {}

  void Run(std::chrono::seconds time) {
    const steady_clock::time_point end = steady_clock::now() + time;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < kRequestThreads; ++i) {
      threads.emplace_back(&Shop::ServeRequests, this, end, i);
    }
    threads.emplace_back(&Shop::PackOrders, this, end);
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  // One line, so that scripts can compare the points that arrived with it.
  void PrintTotals() const {
    std::printf("demo_service: emitted {\"requests\":%ld,\"bytes\":%ld,\"connections\":%ld,",
                request_total_.load(), byte_total_.load(), connection_total_.load());
    std::printf("\"orders\":%ld,\"queue\":%d,\"sizes\":[", order_total_.load(), last_depth_.load());
    for (size_t i = 0; i < size_totals_.size(); ++i) {
      std::printf("%s%ld", i == 0 ? "" : ",", size_totals_[i].load());
    }
    std::printf("]}\n");
  }

 private:
  // Looks its series up anew for every request, as most services do.
  void ServeRequests(steady_clock::time_point end, unsigned int seed) {
    static constexpr std::array<const char*, 2> kMethods = {"get", "post"};
    static constexpr std::array<int, 3> kStatuses = {200, 404, 500};
    std::mt19937 random(seed);
    std::discrete_distribution<size_t> method({4, 1});
    std::discrete_distribution<size_t> status({95, 4, 1});
    std::uniform_int_distribution<int> size(200, 5000);
    std::lognormal_distribution<double> micros(6.0, 0.8);
    std::uniform_int_distribution<int> pause_ms(1, 5);
    while (steady_clock::now() < end) {
      const size_t chosen = method(random);
      const int bytes = size(random);
      metrics_.requests
          ->WithTags({{"method", kMethods[chosen]}, {"status", kStatuses[status(random)]}})
          ->Emit({Incr(1), WithSuffix("bytes", IncrCounter(bytes)), Observe(micros(random))});
      metrics_.upstream->Emit({{"service", "catalog"}}, Observe(micros(random) / 2));
      metrics_.sizes->Emit({}, Stat(bytes));
      ++request_total_;
      byte_total_ += bytes;
      ++size_totals_[BucketOf(bytes)];
      if (request_total_ % 10 == 0) {
        metrics_.connections->Emit({}, IncrMeter(1));
        metrics_.cache->CEmit(static_cast<double>(request_total_), {"cache", "catalog"});
        ++connection_total_;
      }
      if (chosen == 1) {
        ++queued_;
      }
      std::this_thread::sleep_for(milliseconds(pause_ms(random)));
    }
  }

  // Works on one series of each metric and keeps its item, which saves the look-up.
  void PackOrders(steady_clock::time_point end) {
    const auto depth = metrics_.queue->WithTags({{"queue", "orders"}});
    const auto packed = metrics_.orders->WithTags({{"queue", "orders"}});
    const auto clerk = metrics_.clerk->WithTags({{"clerk", "ann"}});
    while (steady_clock::now() < end) {
      const int waiting = queued_.exchange(0);
      depth->Emit({Store(waiting)});
      packed->Emit({Add(waiting)});
      clerk->Emit({WithField("batch", Store(waiting)), WithField("packed", IncrCounter(waiting))});
      order_total_ += waiting;
      last_depth_ = waiting;
      std::this_thread::sleep_for(milliseconds(100));
    }
  }

  static size_t BucketOf(int bytes) {
    size_t bucket = 0;
    while (bucket + 1 < kSizeBounds.size() && bytes >= kSizeBounds[bucket + 1]) ++bucket;
    return bucket;
  }

  const Metrics metrics_;
  std::atomic<int> queued_{0};
  std::atomic<int> last_depth_{0};
  std::atomic<long> request_total_{0};
  std::atomic<long> byte_total_{0};
  std::atomic<long> connection_total_{0};
  std::atomic<long> order_total_{0};
  std::array<std::atomic<long>, kSizeBounds.size()> size_totals_ = {};
};

// Makes metrics of one registry; there is no service without them.
class Maker {
 public:
  Maker(METRICS::MetricClient& client, const std::string& prefix) {
    METRICS::MetricRegistryCfg cfg;
    cfg.tenant = "demo";
    cfg.prefix = prefix;
    cfg.flush_interval = kFlushSeconds;
    Check(client.CreateRegistry(registry_, cfg));
  }

  Metric* Make(const METRICS::MetricInstanceCfg& definition) {
    Metric* metric = nullptr;
    Check(registry_->CreateMetric(metric, definition));
    return metric;
  }
  Metric* Make(const std::string& name, std::vector<std::string> tag_names) {
    METRICS::MetricInstanceCfg definition;
    definition.name = name;
    definition.tag_names = std::move(tag_names);
    return Make(definition);
  }
  Metric* MakeCompatible(const std::string& name, MetricsType type) {
    METRICS::MetricRegistry::MetricInitCfg init;
    init.kind = METRICS::MetricCoItemType::kCoItemCompatible;
    init.cfg.name = name;
    Metric* metric = nullptr;
    Check(registry_->CreateMetric(metric, init));
    metric->SetCompatibleType(type);
    return metric;
  }

 private:
  static void Check(METRICS::ReturnCode code) {
    if (code != METRICS::ReturnCode::kOk) {
      std::fprintf(stderr, "demo_service: %s\n", METRICS::MetricGetErrorCodeStr(code));
      std::exit(1);
    }
  }

  METRICS::MetricRegistry* registry_ = nullptr;
};

Metrics MakeMetrics(METRICS::MetricClient& client) {
  Maker web(client, "shop.web");
  Maker jobs(client, "shop.jobs");
  METRICS::HistoUtilBase size_bounds({kSizeBounds.begin(), kSizeBounds.end()});
  METRICS::MetricInstanceCfg sizes;
  sizes.name = "sizes";
  sizes.histo = &size_bounds;
  METRICS::MetricInstanceCfg clerk;
  clerk.name = "clerk";
  clerk.tag_names = {"clerk"};
  clerk.fields = {{"batch", MetricsType::kGauge}, {"packed", MetricsType::kCounter}};
  Metrics metrics{web.Make("requests", {"method", "status"}),
                  web.Make("connections", {}),
                  web.Make("upstream", {"service"}),
                  web.Make(sizes),
                  jobs.Make("queue", {"queue"}),
                  jobs.Make("orders", {"queue"}),
                  jobs.Make(clerk),
                  web.MakeCompatible("cache", MetricsType::kGauge)};
  metrics.upstream->SetMultiFieldSummary(true);
  metrics.upstream->SetUseCkms(true);
  return metrics;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!Parse(argc, argv, &options)) {
    std::fprintf(stderr, "usage: demo_service [SOCKET_PATH] [--seconds N] [--self-monitor]\n");
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);   // an agent that goes away must not end the service
  METRICS::g_metricsLogLevel = 3;  // of the library's lines on standard output, errors only

  METRICS::MetricClient client;
  METRICS::CoreInitCfg core;
  core.force_self_monitor = options.self_monitor;
  core.monitor_interval = 1000;
  core.monitor_flush_interval = kFlushSeconds;
  client.Init(std::make_unique<Settings>(), std::make_unique<Machine>(options.socket_path), nullptr,
              core);
  Shop shop(MakeMetrics(client));
  shop.Run(std::chrono::seconds(options.seconds));
  client.FlushAndExit();
  shop.PrintTotals();
}

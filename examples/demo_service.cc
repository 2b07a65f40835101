// demo_service [SOCKET_PATH] [--seconds N]: emits for N seconds (10) as a small web shop would, and
// prints at the end what it emitted. Run tidegate-agent on the same path to see it arrive.

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
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
using METRICS::Store;
using METRICS::WithSuffix;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kFlushSeconds = 1;
constexpr int kRequestThreads = 3;

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
};

bool Parse(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--seconds" && i + 1 < argc) {
      options->seconds = std::atoi(argv[++i]);
    } else if (argument.empty() || argument[0] == '-') {
      return false;
    } else {
      options->socket_path = argument;
    }
  }
  return options->seconds > 0;
}

// The shop: requests come in, some of them leave an order in the queue, and a clerk packs orders.
// Its threads run until the time is up.
class Shop {
 public:
  Shop(Metric* requests, Metric* connections, Metric* queue, Metric* orders)
      : requests_(requests), connections_(connections), queue_(queue), orders_(orders) {}

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

  void PrintTotals() const {
    std::printf("demo_service: emitted %ld requests with %ld bytes, %ld connections, %ld orders\n",
                request_total_.load(), byte_total_.load(), connection_total_.load(),
                order_total_.load());
  }

 private:
  // Looks its series up anew for every request, as most services do.
  void ServeRequests(steady_clock::time_point end, unsigned int seed) {
    static constexpr std::array<const char*, 2> kMethods = {"get", "post"};
    static constexpr std::array<const char*, 3> kStatuses = {"200", "404", "500"};
    std::mt19937 random(seed);
    std::discrete_distribution<size_t> method({4, 1});
    std::discrete_distribution<size_t> status({95, 4, 1});
    std::uniform_int_distribution<int> size(200, 5000);
    std::uniform_int_distribution<int> pause_ms(1, 5);
    while (steady_clock::now() < end) {
      const size_t chosen = method(random);
      const int bytes = size(random);
      requests_->WithTags({{"method", kMethods[chosen]}, {"status", kStatuses[status(random)]}})
          ->Emit({Incr(1), WithSuffix("bytes", IncrCounter(bytes))});
      ++request_total_;
      byte_total_ += bytes;
      if (request_total_ % 10 == 0) {
        connections_->WithTags({})->Emit({IncrMeter(1)});
        ++connection_total_;
      }
      if (chosen == 1) {
        ++queued_;
      }
      std::this_thread::sleep_for(milliseconds(pause_ms(random)));
    }
  }

  // Works on one series and keeps its item, which saves the look-up.
  void PackOrders(steady_clock::time_point end) {
    const auto depth = queue_->WithTags({{"queue", "orders"}});
    const auto packed = orders_->WithTags({{"queue", "orders"}});
    while (steady_clock::now() < end) {
      const int waiting = queued_.exchange(0);
      depth->Emit({Store(waiting)});
      packed->Emit({Add(waiting)});
      order_total_ += waiting;
      std::this_thread::sleep_for(milliseconds(100));
    }
  }

  Metric* const requests_;
  Metric* const connections_;
  Metric* const queue_;
  Metric* const orders_;
  std::atomic<int> queued_{0};
  std::atomic<long> request_total_{0};
  std::atomic<long> byte_total_{0};
  std::atomic<long> connection_total_{0};
  std::atomic<long> order_total_{0};
};

// Finds or makes the metric `name` in the registry `prefix`; there is no service without it.
Metric* MakeMetric(METRICS::MetricClient& client, const std::string& prefix,
                   const std::string& name, std::vector<std::string> tag_names) {
  METRICS::MetricRegistryCfg registry;
  registry.tenant = "demo";
  registry.prefix = prefix;
  registry.flush_interval = kFlushSeconds;
  METRICS::MetricInstanceCfg definition;
  definition.name = name;
  definition.tag_names = std::move(tag_names);
  const auto [metric, code] = client.CreateMetric(registry, definition);
  if (metric == nullptr) {
    std::fprintf(stderr, "demo_service: %s: %s\n", name.c_str(),
                 METRICS::MetricGetErrorCodeStr(code));
    std::exit(1);
  }
  return metric;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!Parse(argc, argv, &options)) {
    std::fprintf(stderr, "usage: demo_service [SOCKET_PATH] [--seconds N]\n");
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);   // an agent that goes away must not end the service
  METRICS::g_metricsLogLevel = 3;  // of the library's lines on standard output, errors only

  METRICS::MetricClient client;
  client.Init(new Settings, new Machine(options.socket_path), nullptr, {});
  Shop shop(MakeMetric(client, "shop.web", "requests", {"method", "status"}),
            MakeMetric(client, "shop.web", "connections", {}),
            MakeMetric(client, "shop.jobs", "queue", {"queue"}),
            MakeMetric(client, "shop.jobs", "orders", {"queue"}));
  shop.Run(std::chrono::seconds(options.seconds));
  client.FlushAndExit();
  shop.PrintTotals();
}

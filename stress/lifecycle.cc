// Clients that begin, fill up and end in every way that there is, also in those that nobody should
// choose.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "metrics/bound_series.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_sender_manager.h"
#include "support/agent_socket.h"
#include "support/cases.h"
#include "support/environment.h"
#include "support/kinds.h"
#include "support/sanitized.h"

namespace tidegate::stress {
namespace {

using METRICS::Add;
using METRICS::CoreInitCfg;
using METRICS::MetricClient;
using METRICS::ReturnCode;
using METRICS::Store;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;
using test::AgentSocket;
using test::kNeverDue;
using test::ReportTo;
using test::TempDir;
using test::TestClient;
using test::TestClientOptions;
using test::TestConfiger;
using test::ThreadCount;
using test::WaitFor;
using test::Workers;

constexpr int kRacers = 8;

// Runs `race(thread, i)` for `per_thread` values of i on all racers, which start together.
void Race(int per_thread, const std::function<void(int, int)>& race) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  threads.reserve(kRacers);
  for (int t = 0; t < kRacers; ++t) {
    threads.emplace_back([&, t] {
      ++ready;
      while (ready < kRacers) {
        std::this_thread::yield();
      }
      for (int i = 0; i < per_thread; ++i) {
        race(t, i);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// Calls `round(n)` until `seconds` have passed, at least once.
void Repeat(int length, const std::function<void(int)>& round) {
  const auto end = steady_clock::now() + seconds(length);
  for (int n = 0;
       n == 0 || (steady_clock::now() < end && !testing::UnitTest::GetInstance()->Failed()); ++n) {
    round(n);
  }
}

// The ways to end a client, which is destroyed afterwards.
struct End {
  const char* name;
  void (*run)(MetricClient& client);
  bool flushes;
};
const End kEnds[] = {
    {"destructor alone", [](MetricClient&) {}, false},
    {"Exit", [](MetricClient& client) { client.Exit(); }, false},
    {"Exit twice",
     [](MetricClient& client) {
       EXPECT_EQ(client.Exit(), ReturnCode::kOk);
       EXPECT_EQ(client.Exit(), ReturnCode::kOk);
     },
     false},
    {"AtFork without a fork", [](MetricClient& client) { client.AtFork(); }, false},
    {"FlushAndExit", [](MetricClient& client) { client.FlushAndExit(); }, true},
    {"FlushAndExit and Exit",
     [](MetricClient& client) {
       client.FlushAndExit();
       client.Exit();
     },
     true},
};

TestClientOptions Everything(const AgentSocket& agent, int interval) {
  TestClientOptions options = ReportTo(agent.path(), interval);
  options.core.force_self_monitor = true;
  options.core.monitor_interval = 1;
  options.core.expire_seconds = 1;
  return options;
}

// One life under load, of which the agent must have exactly the emissions that its end promises.
void Live(const End& end) {
  SCOPED_TRACE(end.name);
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  const long threads = ThreadCount();
  const long descriptors = DescriptorCount();
  std::atomic<int> emissions{0};
  std::shared_ptr<METRICS::MetricCollectorItem> late;
  {
    TestClient client(Everything(agent, kNeverDue));
    const AllKinds kinds[] = {{*client, "t1", "p"}, {*client, "t2", "p"}};
    ASSERT_TRUE(kinds[0].made() && kinds[1].made());
    for (const AllKinds& each : kinds) {
      for (int series = 0; series < 10; ++series) {
        EXPECT_TRUE(each.Emit(std::to_string(series)));
        ++emissions;
      }
    }
    Workers workers;
    workers.Start(4, [&](int i) {
      for (int n = 0; n < 20; ++n) {
        EXPECT_TRUE(kinds[i % 2].Emit(std::to_string(n % 10)));
        ++emissions;
      }
    });
    std::this_thread::sleep_for(milliseconds(50));  // of load
    workers.Stop();
    end.run(*client);
  }
  // A joined thread counts for a moment more.
  EXPECT_TRUE(WaitFor([&] { return ThreadCount() <= threads; })) << ThreadCount();
  agent.Stop();
  EXPECT_TRUE(agent.Errors().empty());
  const AgentSocket::Packets packets = agent.Received();
  // Each emission reaches a suffix; the delta counter in the row has other columns.
  EXPECT_EQ(EmissionsOf(packets, "t1") + EmissionsOf(packets, "t2"),
            end.flushes ? emissions.load() : 0);
  EXPECT_LE(DescriptorCount(), descriptors);
}

void Ends(int length) {
  Repeat(length, [](int) {
    for (const End& end : kEnds) {
      Live(end);
    }
  });
}

// A last flush that meets an ordinary one, in all their phases: nothing is lost, nothing is sent
// twice, as all emissions lie before the boundary.
void EndsAtABoundary(int length) {
  Repeat(length, [](int round) {
    const TempDir dir;
    AgentSocket agent(dir.File("s"));
    constexpr int kClients = 12;
    std::vector<std::unique_ptr<TestClient>> clients;
    double emissions = 0;
    for (int i = 0; i < kClients; ++i) {
      clients.push_back(std::make_unique<TestClient>(ReportTo(agent.path(), 1)));
      METRICS::Metric* const metric = clients.back()->Metric("m", {"w"});
      for (int series = 0; series < 200; ++series) {
        metric->WithTags({{"w", std::to_string(series)}})->Emit({Add(1)});
        ++emissions;
      }
    }
    const auto now = system_clock::now();
    const auto boundary =
        now - now.time_since_epoch() % seconds(1) + seconds(1 + round % 2);  // one may pass before
    std::vector<std::thread> enders;
    enders.reserve(kClients);
    for (int i = 0; i < kClients; ++i) {
      enders.emplace_back([&, i] {
        std::this_thread::sleep_until(boundary + milliseconds(i - kClients / 2));
        (*clients[static_cast<size_t>(i)])->FlushAndExit();
      });
    }
    for (std::thread& ender : enders) {
      ender.join();
    }
    clients.clear();
    agent.Stop();
    EXPECT_EQ(EmissionsOf(agent.Received(), "t1"), emissions);
  });
}

// Serves as long as the process exists, and is destroyed after all other objects with static
// storage, the library's included.
class UntilTheEnd {
 public:
  UntilTheEnd() = default;
  UntilTheEnd(const UntilTheEnd&) = delete;
  UntilTheEnd& operator=(const UntilTheEnd&) = delete;
  ~UntilTheEnd() {
    if (agent_ == nullptr) {
      return;
    }
    // Two flushes after the destruction of everything else.
    const long before = emissions_.load();
    const size_t packets = agent_->Received().size();
    std::this_thread::sleep_for(milliseconds(2100));
    if (emissions_.load() == before || agent_->Received().size() == packets) {
      std::fputs("emission or flushing ended before the process\n", stderr);
      ::_exit(1);
    }
  }

  void Serve() {
    dir_ = new TempDir();
    agent_ = new AgentSocket(dir_->File("s"));
    auto* const client = new TestClient(Everything(*agent_, 1));
    std::thread([this, client] {
      for (long n = 0;; ++n) {
        // New registries, metrics, series and cells all along.
        const AllKinds kinds(**client, "t1", std::to_string(n % 500));
        if (!kinds.made() || !kinds.Emit(std::to_string(n))) {
          ::_exit(1);
        }
        (*client)->metric_factory_->RemoveRegistry(std::to_string(n % 500), "t1");
        METRICS::Metric* const steady = client->Metric("steady");
        if (steady == nullptr || steady->WithTags({})->Emit({Store(1)}) != ReturnCode::kOk) {
          ::_exit(1);
        }
        ++emissions_;
        std::this_thread::sleep_for(milliseconds(1));  // the flushing thread has to have a chance
      }
    }).detach();
  }

 private:
  // Never destroyed.
  TempDir* dir_ = nullptr;
  AgentSocket* agent_ = nullptr;
  std::atomic<long> emissions_{0};
};

__attribute__((init_priority(101))) UntilTheEnd until_the_end;

void NeverDestroyed(int /*length*/) {
  until_the_end.Serve();
  std::this_thread::sleep_for(milliseconds(200));  // in service
}

// Only the destructor ends these: after the library's own objects, and before.
__attribute__((init_priority(102))) MetricClient early_global;

void GlobalClients(int /*length*/) {
  static MetricClient late_global;
  METRICS::g_metricsLogLevel = 4;  // for the destructors too
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  CoreInitCfg core;
  core.force_self_monitor = true;
  for (MetricClient* const client : {&early_global, &late_global}) {
    client->Init(std::make_unique<TestConfiger>(), std::make_unique<StaticVendor>(agent.path()),
                 nullptr, core);
    const AllKinds kinds(*client, "t1", "p");
    Workers workers;
    workers.Start(4, [&](int i) { EXPECT_TRUE(kinds.Emit(std::to_string(i))); });
    EXPECT_TRUE(agent.WaitForPackets(1));
  }
}

// Serves, forks, and lets the child go on in the same way, `generations` times; the code of the
// first thing that went wrong in a process or its descendants.
int ServeForGenerations(MetricClient& client, const std::string& socket, int generations) {
  CoreInitCfg core;
  core.force_self_monitor = true;
  core.expire_seconds = 1;
  for (int generation = 0;; ++generation) {
    const std::string tenant = "t" + std::to_string(generation);
    if (client.Init(std::make_unique<TestConfiger>(kNeverDue),
                    std::make_unique<StaticVendor>(socket), nullptr, core) != ReturnCode::kOk) {
      return 2;
    }
    const AllKinds kinds(client, tenant, "p");
    if (!kinds.made() || !kinds.Emit("0")) {
      return 3;
    }
    const pid_t child = generation < generations ? ::fork() : -1;
    if (child == 0) {
      client.AtFork();
      continue;
    }
    int status = 0;
    if (child > 0 && ::waitpid(child, &status, 0) != child) {
      return 4;
    }
    if (!kinds.Emit("0")) {
      return 5;
    }
    client.FlushAndExit();
    return WIFEXITED(status) ? WEXITSTATUS(status) : 6;
  }
}

void InitAgainAfterAtFork(int length) {
  if (kSanitized) {
    std::puts("lifecycle: no forks with live threads under a sanitizer");
    return;
  }
  const test::ScopedLogLevel silent(4);
  Repeat(length, [](int) {
    const TempDir dir;
    AgentSocket agent(dir.File("s"));
    constexpr int kGenerations = 4;
    const pid_t parent = ::getpid();
    MetricClient client;
    const int code = ServeForGenerations(client, agent.path(), kGenerations);
    if (::getpid() != parent) {
      ::_exit(code);
    }
    EXPECT_EQ(code, 0);
    agent.Stop();
    for (int i = 0; i <= kGenerations; ++i) {
      EXPECT_EQ(EmissionsOf(agent.Received(), "t" + std::to_string(i)), 2) << i;
    }
  });
}

// Whether `child` ends by itself, in time and with status 0.
bool EndsWell(pid_t child) {
  int status = 0;
  if (!WaitFor([&] { return ::waitpid(child, &status, WNOHANG) != 0; })) {
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
  }
  return status == 0;
}

// Of a service that keeps its client and its handles in global variables.
MetricClient forked_client;
METRICS::BoundSeries forked_handle;

// Children that know nothing of the client, after an `exec` that failed, say: they exit, or end it
// as they would their own. Emitters, a flush and an expiry are under way in the parent.
void ForgottenChildren(int length) {
  if (kSanitized) {
    return;
  }
  const test::ScopedLogLevel silent(4);
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  forked_client.Init(std::make_unique<TestConfiger>(), std::make_unique<StaticVendor>(agent.path()),
                     nullptr, {true, false});
  METRICS::Metric* const metric =
      forked_client.CreateMetric({"p", {}, "t1"}, {"m", {"w"}, {}, {}}).metric;
  std::atomic<long> emissions{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> emitters;
  EXPECT_EQ(forked_handle.Bind(metric, {{"w", "held"}}, Add(0)), ReturnCode::kOk);
  forked_handle.Emit(1);
  emitters.reserve(2);
  for (int t = 0; t < 2; ++t) {
    emitters.emplace_back([&, t] {  // new series all along
      for (int n = 0; !done; ++n) {
        metric->WithTags({{"w", std::to_string(n % 20000) + "." + std::to_string(t)}})
            ->Emit({Add(1)});
        ++emissions;
      }
    });
  }
  Repeat(length, [](int round) {
    for (const auto end :
         {+[] {}, +[] { forked_client.Exit(); }, +[] { forked_client.FlushAndExit(); },
          +[] { forked_client.AtFork(); }}) {
      std::fflush(nullptr);
      const pid_t child = ::fork();
      if (child == 0) {
        end();
        if (round % 2 == 0) {
          forked_handle = METRICS::BoundSeries();
        }
        std::exit(0);
      }
      EXPECT_TRUE(EndsWell(child)) << "round " << round;
    }
  });
  done = true;
  for (std::thread& emitter : emitters) {
    emitter.join();
  }
  forked_handle = METRICS::BoundSeries();
  test::SleepToMidSecond();
  forked_client.FlushAndExit();
  agent.Stop();
  EXPECT_EQ(EmissionsOf(agent.Received(), "t1"), static_cast<double>(emissions + 1));
}

// Forks at every stage of an end that another thread is at.
void ForksDuringAnEnd(int length) {
  if (kSanitized) {
    return;
  }
  Repeat(length, [](int) {
    for (const auto end : {+[](MetricClient& client) { client.FlushAndExit(); },
                           +[](MetricClient& client) { client.Exit(); }}) {
      const TempDir dir;
      AgentSocket agent(dir.File("s"));
      TestClient client(Everything(agent, kNeverDue));
      for (const char* tenant : {"t1", "t2", "t3", "t4"}) {
        METRICS::Metric* const metric = client.Metric("m", {"w"}, "p", tenant);
        for (int series = 0; series < 500; ++series) {
          metric->WithTags({{"w", std::to_string(series)}})->Emit({Add(1)});
        }
      }
      std::atomic<bool> ended{false};
      std::thread ender([&] {
        end(*client);
        ended = true;
      });
      while (!ended) {
        const pid_t child = ::fork();
        if (child == 0) {
          client->AtFork();
          ::_exit(0);
        }
        EXPECT_TRUE(EndsWell(child));
      }
      ender.join();
    }
  });
}

// 512 registries, which racing threads make, serve and report; one more is refused.
void Registries(int length) {
  Repeat(length, [](int) {
    const TempDir dir;
    AgentSocket agent(dir.File("s"));
    TestClient client(ReportTo(agent.path(), kNeverDue));
    METRICS::MetricFactory& factory = *client->metric_factory_;
    std::atomic<int> made{0};
    std::atomic<int> full{0};
    Race(100, [&](int t, int i) {
      METRICS::MetricRegistry* registry = nullptr;
      const std::string prefix = std::to_string(t) + "." + std::to_string(i);
      const ReturnCode code =
          factory.CreateRegistry(registry, prefix, {}, "t" + std::to_string(i % 3), 1);
      made += code == ReturnCode::kOk ? 1 : 0;
      full += code == ReturnCode::kMaxRegistry ? 1 : 0;
    });
    EXPECT_EQ(made, 512);
    EXPECT_EQ(full, kRacers * 100 - 512);
    EXPECT_EQ(factory.GetAllRegistryNames().size(), 512u);
    METRICS::MetricRegistry* registry = nullptr;
    EXPECT_EQ(factory.CreateRegistry(registry, "513", {}, "t0", 1), ReturnCode::kMaxRegistry);
    EXPECT_EQ(registry, nullptr);
    const std::shared_ptr<METRICS::MetricRegistry> one = factory.GetAllRegistry().at(0);
    EXPECT_EQ(factory.RemoveRegistry(one->Prefix(), one->Tenant()), ReturnCode::kOk);
    EXPECT_EQ(factory.CreateRegistry(registry, "513", {}, "t0", 1), ReturnCode::kOk);
    for (const auto& each : factory.GetAllRegistry()) {
      METRICS::Metric* metric = nullptr;
      EXPECT_EQ(each->CreateMetric(metric, "m", {}, nullptr), ReturnCode::kOk);
      metric->WithTags({})->Emit({Add(1)});
    }
    client->FlushAndExit();
    agent.Stop();
    double arrived = 0;
    for (const char* tenant : {"t0", "t1", "t2"}) {
      arrived += EmissionsOf(agent.Received(), tenant);
    }
    EXPECT_EQ(arrived, 512);
  });
}

// The limit of metrics, which is one of the environment; racing threads, as above.
void Metrics(int length) {
  static constexpr int kLimit = 100;
  ::setenv("METRICS_MAX_METRICS_PER_REGISTRY", std::to_string(kLimit).c_str(), 1);
  Repeat(length, [](int) {
    const TempDir dir;
    AgentSocket agent(dir.File("s"));
    TestClient client(ReportTo(agent.path(), kNeverDue));
    METRICS::MetricRegistry& registry = *client.Registry("p");
    std::atomic<int> made{0};
    std::atomic<int> full{0};
    Race(40, [&](int t, int i) {
      METRICS::Metric* metric = nullptr;
      const std::string name = std::to_string(t) + "." + std::to_string(i);
      const ReturnCode code = registry.CreateMetric(metric, name, {}, nullptr);
      made += code == ReturnCode::kOk ? 1 : 0;
      full += code == ReturnCode::kMaxMetric ? 1 : 0;
      if (metric != nullptr) {
        metric->WithTags({})->Emit({Add(1)});
      }
    });
    EXPECT_EQ(made, kLimit);
    EXPECT_EQ(full, kRacers * 40 - kLimit);
    EXPECT_EQ(registry.GetAllMetric().size(), static_cast<size_t>(kLimit));
    EXPECT_EQ(client->collector_factory_->GetAll().size(), static_cast<size_t>(kLimit));
    client->FlushAndExit();
    agent.Stop();
    EXPECT_EQ(EmissionsOf(agent.Received(), "t1"), kLimit);
  });
}

// Racing threads make `wanted` series where `quota` are allowed. Those that race past the test may
// exceed it by their number; all that was accepted arrives, and all that was refused is counted.
void FillTo(int wanted, int quota) {
  SCOPED_TRACE(std::to_string(wanted) + " of " + std::to_string(quota));
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  TestClientOptions options = ReportTo(agent.path(), kNeverDue);
  options.core.max_total_series = static_cast<uint64_t>(quota);
  TestClient client(std::move(options));
  METRICS::MetricCollectorFactory& factory = *client->collector_factory_;
  METRICS::Metric* const metric = client.Metric("m", {"w"});
  std::atomic<int> next{0};
  std::atomic<int> accepted{0};
  std::atomic<int> refused{0};
  const auto emit = [&](int series) {
    const ReturnCode code = metric->WithTags({{"w", std::to_string(series)}})->Emit({Add(1)});
    accepted += code == ReturnCode::kOk ? 1 : 0;
    refused += code == ReturnCode::kNotSupported ? 1 : 0;
  };
  Race(wanted, [&](int, int) {  // more often than needed, as nobody knows how they share it
    const int series = next++;
    if (series < wanted) {
      emit(series);
    }
  });
  EXPECT_EQ(accepted + refused, wanted);
  EXPECT_GE(accepted, std::min(wanted, quota));
  EXPECT_LE(accepted, std::min(wanted, quota + kRacers - 1));
  EXPECT_EQ(factory.total_series_.load(), static_cast<size_t>(accepted.load()));
  EXPECT_EQ(metric->emit_fail_.load(), static_cast<size_t>(refused.load()));
  // Nobody races any more: existing series go on, and one more is made below the quota alone.
  const int before = accepted;
  emit(wanted);
  EXPECT_EQ(accepted - before, before < quota ? 1 : 0);
  const double total = accepted;
  client->sender_manager_->FlushAndExit();
  EXPECT_TRUE(
      agent.WaitUntil([&](const auto& packets) { return EmissionsOf(packets, "t1") >= total; }));
  EXPECT_EQ(EmissionsOf(agent.Received(), "t1"), total);
  client->metric_factory_->RemoveRegistry("p", "t1");
  EXPECT_EQ(factory.total_series_.load(), 0u) << "what is removed gives its share back";
}

void SeriesQuota(int length) {
  constexpr int kQuota = 200;
  Repeat(length, [](int) {
    for (const int wanted : {kQuota - 1, kQuota, kQuota + 1, kQuota + 300}) {
      FillTo(wanted, kQuota);
    }
  });
}

const std::vector<Case> kCases = {
    {"never_destroyed", NeverDestroyed},
    {"global_clients", GlobalClients},
    {"ends", Ends},
    {"ends_at_a_boundary", EndsAtABoundary},
    {"init_again_after_at_fork", InitAgainAfterAtFork},
    {"forgotten_children", ForgottenChildren},
    {"forks_during_an_end", ForksDuringAnEnd},
    {"registries", Registries},
    {"metrics", Metrics},
    {"series_quota", SeriesQuota},
};

}  // namespace
}  // namespace tidegate::stress

int main(int argc, char** argv) {
  return tidegate::stress::RunCases("lifecycle", "Begins, fills and ends clients in every way.", 2,
                                    tidegate::stress::kCases, argc, argv);
}

// Bad configurations, names, tags and emissions: the code and the lines that each gets, and that a
// refused call leaves no trace but those that are known.

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "bad_calls.h"
#include "metrics/global_resources_limit.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_sender_manager.h"
#include "support/cases.h"
#include "support/command_line.h"
#include "support/environment.h"
#include "support/report.h"

namespace tidegate::stress {
namespace {

using METRICS::Metric;
using METRICS::MetricRegistry;
using METRICS::Store;
using test::AgentSocket;
using test::TestClient;
using R = ReturnCode;

bool AnyFailed() { return testing::UnitTest::GetInstance()->Failed(); }

// No other thread changes the tables meanwhile.
State StateOf(METRICS::MetricClient& client) METRICS_NO_THREAD_SAFETY {
  State state;
  const auto count = [&state](const char* kind, size_t number) {
    state[kind] += static_cast<long>(number);
  };
  for (const auto& registry : client.metric_factory_->GetAllRegistry()) {
    count("registries", 1);
    for (const auto& metric : registry->GetAllMetric()) {
      count("metrics", 1);
      count("cells", metric->cache_series_.load());
    }
  }
  const METRICS::MetricCollectorFactory& collectors = *client.collector_factory_;
  count("tenants", collectors.tenants_.size());
  count("collectors", collectors.GetAll().size());
  count("series", collectors.total_series_.load());
  count("senders", client.sender_manager_->GetAllTenant().size());
  state["threads"] = test::ThreadCount();
  state["descriptors"] = DescriptorCount();
  return state;
}

// The lines of a log without product, file and line: "Error: Invalid string.".
Lines LinesOf(const std::string& log) {
  static const std::regex& prefix = *new std::regex(R"(\[MetricSDK\]\[(\w+) ?\]\[\w+\.cc:\d+\])");
  Lines lines;
  std::istringstream text(log);
  for (std::string line; std::getline(text, line);) {
    if (line.find("] is no multiple of its tenant's[") != std::string::npos) {
      continue;  // which never comes to an end here
    }
    lines.push_back(
        std::regex_replace(line, prefix, "$1: ", std::regex_constants::format_first_only));
  }
  return lines;
}

// `expected` is the state before, and after: what comes late is found by a later call. A state
// needs to be seen once only, as the C library opens files of its own for a moment.
void CheckAll(METRICS::MetricClient& client, const std::vector<Bad>& table, State& expected,
              int64_t& calls) {
  for (const auto& [what, call, code, lines, left] : table) {
    SCOPED_TRACE(what);
    R answered = R::kOk;
    const std::string log = test::LogOf([&, &c = call] { answered = c(); }, 2);
    EXPECT_EQ(answered, code);
    EXPECT_EQ(LinesOf(log), lines);
    for (const auto& [kind, more] : left) {
      expected[kind] += more;
    }
    State found;
    test::WaitFor([&] { return (found = StateOf(client)) == expected; });  // the agent may be late
    EXPECT_EQ(found, expected);
    ++calls;
  }
}

using Clock = std::chrono::steady_clock;

// The traces of some calls add up.
constexpr int kRoundsPerClient = 100;

// All bad calls on one client, until `end`; then it serves as if there had been none.
int64_t CheckClient(Clock::time_point end) {
  const test::TempDir dir;
  AgentSocket agent(dir.File("s"));
  World world(agent);
  State state = StateOf(world.client());
  int64_t calls = 0;
  int rounds = 0;
  do {
    for (const std::vector<Bad>& table :
         {world.Registries(), world.Names(), world.Definitions(), world.Leftovers(rounds),
          world.Emissions(rounds), world.Unknown()}) {
      CheckAll(world.client(), table, state, calls);
    }
    ++rounds;
  } while (Clock::now() < end && rounds < kRoundsPerClient && !AnyFailed());
  world.client().FlushAndExit();
  agent.Stop();
  std::set<std::string> expected = {"p.m.known", "p.row"};
  for (int round = 0; round < rounds; ++round) {
    expected.insert("p.m.ahead" + std::to_string(round));
  }
  std::set<std::string> names;
  for (const test::Point& point : agent.Points()) {
    EXPECT_EQ(point.tenant, "t1");
    names.insert(point.name);
  }
  EXPECT_EQ(names, expected);
  EXPECT_TRUE(agent.Errors().empty());
  return calls;
}

int64_t CheckCalls(int length) {
  const auto end = Clock::now() + std::chrono::seconds(length);
  int64_t calls = 0;
  do {
    calls += CheckClient(end);
  } while (Clock::now() < end && !AnyFailed());
  return calls;
}

// The same where everything is full.
int64_t CheckLimits() {
  const test::TempDir dir;
  AgentSocket agent(dir.File("s"));
  World world(agent, 2);
  METRICS::MetricClient& client = world.client();
  MetricRegistry* registry = nullptr;
  METRICS::MetricFactory& factory = *client.metric_factory_;
  for (int i = 2; i < 512; ++i) {
    EXPECT_EQ(factory.CreateRegistry(registry, std::to_string(i), {}, "t1", 1), R::kOk);
  }
  Metric* metric = nullptr;
  EXPECT_EQ(factory.GetRegistry(registry, "p", "t1"), R::kOk);
  EXPECT_EQ(registry->GetMetric(metric, "m"), R::kOk);
  METRICS::g_global_resources_limit.max_metrics_per_registry = 3;
  State state = StateOf(client);
  int64_t calls = 0;
  CheckAll(
      client,
      {Refused("a 513th registry", R::kMaxRegistry,
               [&] {
                 MetricRegistry* none = registry;
                 return client.CreateRegistry(none, RegistryOf("t1", "new"));
               }),
       Refused("and with a metric", R::kMaxRegistry,
               [&] { return client.CreateMetric(RegistryOf("t2", "p"), Described("m")).code; }),
       Refused("one metric too many", R::kMaxMetric,
               [&] {
                 Metric* none = nullptr;
                 return registry->CreateMetric(none, Described("new"));
               }),
       {"one series too many",
        [&] {
          return metric->WithTags({{"a", "new"}})->Emit({Store(1)});
        },
        R::kNotSupported,
        {"Warn: TotalSeriesCount reach maximum, count: 2 quota: 10000000"}}},
      state, calls);
  METRICS::g_global_resources_limit.max_metrics_per_registry = 0;
  return calls;
}

// Settings that a client gets as far as it can with, each with what `Init` prints.
int64_t CheckSettings() {
  const struct {
    const char* what;
    std::function<void(METRICS::CoreInitCfg&)> change;
    Lines lines;
  } kSettings[] = {
      {"no interval for self monitoring",
       [](auto& cfg) { cfg.monitor_flush_interval = 0; },
       {ErrorOf(R::kNotSupported), ErrorOf(R::kNotSupported)}},
      {"an odd interval for self monitoring",
       [](auto& cfg) { cfg.monitor_flush_interval = 7; },
       {"Warn: Input flush interval invalid, should be {1,5,10,15,30,60}, use 30 instead."}},
      {"no pauses",
       [](auto& cfg) {
         cfg.monitor_interval = INT_MIN;
         cfg.expire_seconds = INT_MIN;
       },
       {}},
  };
  int64_t calls = 0;
  for (const auto& [what, change, lines] : kSettings) {
    SCOPED_TRACE(what);
    const test::TempDir dir;
    AgentSocket agent(dir.File("s"));
    test::TestClientOptions options = test::ReportTo(agent.path(), test::kNeverDue);
    options.core.force_self_monitor = true;
    change(options.core);
    options.log_level.reset();
    const test::ScopedLogLevel silent(4);
    std::unique_ptr<TestClient> client;
    const std::string log =
        test::LogOf([&] { client = std::make_unique<TestClient>(std::move(options)); }, 2);
    EXPECT_EQ(LinesOf(log), lines);
    EXPECT_EQ(client->Metric("m")->WithTags({})->Emit({Store(1)}), R::kOk);
    (*client)->FlushAndExit();
    EXPECT_TRUE(agent.WaitUntil([](const AgentSocket::Packets& packets) {
      for (const test::Point& point : test::PointsOf(packets)) {
        if (point.name == "p.m.store") {
          return true;
        }
      }
      return false;
    }));
    ++calls;
  }
  return calls;
}

int Main(int argc, char** argv) {
  CommandLine line("bad_inputs", "Makes every bad call and looks for what it leaves.", 1);
  if (const auto code = line.Parse(argc, argv)) {
    return *code;
  }
  Report report("bad_inputs");
  report.Figure("calls", CheckCalls(line.seconds()) + CheckLimits() + CheckSettings());
  report.Check(!AnyFailed(), "see the failures above");
  return report.Finish();
}

}  // namespace
}  // namespace tidegate::stress

int main(int argc, char** argv) { return tidegate::stress::Main(argc, argv); }

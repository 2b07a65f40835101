// A client whose surroundings fail: agents that are absent, stall or hang up, descriptors that are
// used up, a wall clock that leaps. Emission goes on, nothing hangs or leaks, and once things are
// well again the totals are right.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agent/unique_fd.h"
#include "false_clock.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_factory.h"
#include "support/agent_socket.h"
#include "support/cases.h"
#include "support/environment.h"
#include "support/kinds.h"
#include "testing/unix_socket.h"
#include "util/wall_clock.h"

namespace tidegate::stress {
namespace {

using agent::UniqueFd;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using test::AgentSocket;
using test::Bind;
using test::CountOf;
using test::LogOf;
using test::TempDir;
using test::ThreadCount;
using test::WaitFor;

// An emission takes microseconds; this leaves room for a busy machine, but not for a wait for
// anything that fails.
constexpr seconds kLongestEmission{2};
// All waits for a failing agent are bounded, and there are few packets.
constexpr seconds kLongestEnd{20};
// Holds two flushes of an interval of one second.
constexpr milliseconds kTwoFlushes{2300};

// A service that emits on all kinds of metrics all along and reports every second. At its end the
// process has the threads and descriptors that it had before.
class Service {
 public:
  Service(const std::string& path, const std::string& tenant, int interval = 1, int series = 10)
      : tenant_(tenant), series_(series), client_(std::in_place, Options(path, interval)) {
    kinds_ = std::make_unique<AllKinds>(**client_, tenant, "p");
    EXPECT_TRUE(kinds_->made());
    workers_.Start(2, [this](int) {
      const auto start = steady_clock::now();
      const long number = ++emissions_;
      EXPECT_TRUE(kinds_->Emit(std::to_string(number % series_)));
      EXPECT_LT(steady_clock::now() - start, kLongestEmission);
    });
  }
  ~Service() {
    workers_.Stop();
    const auto start = steady_clock::now();
    client_.reset();
    EXPECT_LT(steady_clock::now() - start, kLongestEnd);
  }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Stops emitting, and waits until the agent has seen the running totals in full: they hold what
  // was emitted while nothing could be sent, too.
  void ExpectFullTotals(AgentSocket& agent) {
    workers_.Stop();
    const auto complete = [this](const AgentSocket::Packets& packets) {
      return RunningTotal(packets) == static_cast<double>(emissions_.load());
    };
    EXPECT_TRUE(agent.WaitUntil(complete))
        << tenant_ << ": " << RunningTotal(agent.Received()) << " of " << emissions_;
  }
  void StopEmitting() { workers_.Stop(); }
  // Waits until a packet of the service has failed with `error`.
  void ExpectFailure(int error) {
    METRICS::MetricRegistry* registry = nullptr;
    (*client_)->metric_factory_->GetRegistry(registry, "inf.tidegate", "inf.metrics");
    METRICS::Metric* failures = nullptr;
    registry->GetMetric(failures, "sender.fail");
    const std::vector<std::string> status_and_tenant = {std::strerror(error), tenant_};
    EXPECT_TRUE(WaitFor([&] {
      const std::vector<METRICS::Series> all = failures->impl_->collector_->GetAll();
      return std::any_of(all.begin(), all.end(), [&](const METRICS::Series& series) {
        return series.first == status_and_tenant;
      });
    })) << tenant_
        << ": no failure with " << std::strerror(error);
  }
  METRICS::MetricClient& client() { return **client_; }
  double emissions() const { return static_cast<double>(emissions_.load()); }

 private:
  static test::TestClientOptions Options(const std::string& path, int interval) {
    test::TestClientOptions options = test::ReportTo(path, interval);
    options.core.force_self_monitor = true;
    options.core.monitor_interval = 100;
    options.log_level.reset();
    return options;
  }

  // The last value of each counter, added up.
  double RunningTotal(const AgentSocket::Packets& packets) const {
    std::map<std::string, double> last;
    for (const test::Point& point : test::PointsOf(packets)) {
      if (point.tenant == tenant_ && point.name == "p.suffixed.counter") {
        last[point.tags.at(0).value] = point.values.at(0);
      }
    }
    double total = 0;
    for (const auto& [series, value] : last) {
      total += value;
    }
    return total;
  }

  const std::string tenant_;
  const int series_;
  std::optional<test::TestClient> client_;
  std::unique_ptr<AllKinds> kinds_;
  std::atomic<long> emissions_{0};
  test::Workers workers_;
};

// Checks that a case leaves no thread and no descriptor.
class Baseline {
 public:
  Baseline() {
    std::thread([] {}).join();  // a sanitizer's own thread comes with the first one and stays
    threads_ = ThreadCount();
    descriptors_ = DescriptorCount();
  }
  ~Baseline() {
    EXPECT_TRUE(WaitFor([this] { return ThreadCount() <= threads_; })) << ThreadCount();
    EXPECT_EQ(DescriptorCount(), descriptors_);
  }
  Baseline(const Baseline&) = delete;
  Baseline& operator=(const Baseline&) = delete;

 private:
  long threads_;
  long descriptors_;
};

// Takes the connections that the backlog of a listener has room for.
void FillBacklog(const std::string& path, std::vector<UniqueFd>& held) {
  int result = 0;
  while (result == 0) {
    held.emplace_back(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    result = test::CallWithPath(::connect, held.back(), path);
  }
  EXPECT_EQ(errno, EAGAIN);
}

// The thing that stands where the agent's socket should be.
using Held = std::vector<UniqueFd>;
const struct Absence {
  const char* name;
  std::function<void(const std::string& path, Held& held)> make;
  int error;  // of connecting
} kAbsences[] = {
    {"no_file", [](const std::string&, Held&) {}, ENOENT},
    {"stale", [](const std::string& path, Held&) { Bind(path, SOCK_SEQPACKET, 1); }, ECONNREFUSED},
    {"refusing",
     [](const std::string& path, Held& held) { held.push_back(Bind(path, SOCK_SEQPACKET, -1)); },
     ECONNREFUSED},
    {"other_type",
     [](const std::string& path, Held& held) { held.push_back(Bind(path, SOCK_STREAM, 1)); },
     EPROTOTYPE},
    {"never_accepts",
     [](const std::string& path, Held& held) {
       held.push_back(Bind(path, SOCK_SEQPACKET, 0));
       FillBacklog(path, held);
     },
     EAGAIN},
    {"plain_file", [](const std::string& path, Held&) { std::ofstream file(path); }, ECONNREFUSED},
    {"folder", [](const std::string& path, Held&) { ::mkdir(path.c_str(), 0700); }, ECONNREFUSED},
    {"long_path", [](const std::string&, Held&) {}, ENOENT},
};

void AbsentAgents(int /*length*/) {
  const Baseline baseline;
  const test::ScopedLogLevel silent(4);
  {
    const TempDir dir;
    std::map<std::string, std::string> paths;
    std::map<std::string, Held> held;
    std::vector<std::unique_ptr<Service>> services;
    const std::string log = LogOf([&] {
      for (const auto& [name, make, error] : kAbsences) {
        std::string& path = paths[name];
        path = dir.File(name);
        if (path == dir.File("long_path")) {
          path.append(107 - path.size(), 'x');
        }
        make(path, held[name]);
        // Of a longer path the first 107 bytes count.
        services.push_back(
            std::make_unique<Service>(path.size() == 107 ? path + "yz" : path, name));
      }
      for (const std::unique_ptr<Service>& service : services) {
        service->ExpectFailure(ENOTCONN);
      }
      std::this_thread::sleep_for(seconds(1));  // of some more
    });
    for (const auto& [name, make, error] : kAbsences) {
      SCOPED_TRACE(name);
      const std::string sender = "]Sender[" + std::string(name) + "]";
      // Once when it began, and twice per flush.
      EXPECT_GE(
          CountOf(sender + " UDS connect to socket fail, errno: " + std::strerror(error) + "\n",
                  log),
          3u);
      EXPECT_GE(CountOf(sender + " Send fail with errno[" + std::to_string(ENOTCONN) + "]", log),
                2u);
      EXPECT_EQ(CountOf(sender + " Send ", log), CountOf(sender + " Send fail", log))
          << "nothing was delivered";
    }
    std::vector<std::unique_ptr<AgentSocket>> agents;
    for (const auto& absence : kAbsences) {
      held[absence.name].clear();
      ::remove(paths[absence.name].c_str());
      agents.push_back(std::make_unique<AgentSocket>(paths[absence.name]));
    }
    for (const std::unique_ptr<Service>& service : services) {
      service->StopEmitting();
    }
    for (size_t i = 0; i < services.size(); ++i) {
      services[i]->ExpectFullTotals(*agents[i]);
    }
    services.clear();
  }
}

// An agent that lets connections in and reads none of them. Packets fill the sockets, then
// each packet costs a bounded time; a client can still end.
void StalledAgent(int length) {
  const Baseline baseline;
  const test::ScopedLogLevel silent(4);
  const TempDir dir;
  const std::string path = dir.File("s");
  constexpr int kSeries = 400;  // several packets per flush
  constexpr int kBacklog = 1;   // a socket for each sender, and none to reconnect to
  const auto stall = [&](Service& service) {
    service.ExpectFailure(EAGAIN);    // the socket is full
    service.ExpectFailure(ENOTCONN);  // there is no other
    std::this_thread::sleep_for(seconds(length));
  };
  {
    UniqueFd listener = Bind(path, SOCK_SEQPACKET, kBacklog);
    Service service(path, "t1", 1, kSeries);
    stall(service);
    listener.Reset();
    ::unlink(path.c_str());
    AgentSocket agent(path);
    service.ExpectFullTotals(agent);
  }
  {
    const UniqueFd listener = Bind(path, SOCK_SEQPACKET, kBacklog);
    Service service(path, "t1", 1, kSeries);
    stall(service);
    service.StopEmitting();
    const auto start = steady_clock::now();
    service.client().FlushAndExit();
    EXPECT_LT(steady_clock::now() - start, kLongestEnd);
  }
}

void AgentHangsUp(int length) {
  const Baseline baseline;
  const test::ScopedLogLevel silent(4);
  const TempDir dir;
  AgentSocket agent(dir.File("s"), true);
  double emissions = 0;
  {
    Service service(dir.File("s"), "t1", 1, 60);
    EXPECT_TRUE(WaitFor([&] { return agent.hang_ups() >= 6; }));
    std::this_thread::sleep_for(seconds(length));
    service.StopEmitting();
    test::SleepToMidSecond();  // a flush that still runs would be the last one
    service.client().FlushAndExit();
    emissions = service.emissions();
  }
  agent.Stop();
  EXPECT_EQ(EmissionsOf(agent.Received(), "t1"), emissions);
  EXPECT_TRUE(agent.Errors().empty());
}

int LowestFreeDescriptor() {
  const UniqueFd probe(::dup(STDERR_FILENO));
  return probe.get();
}

// No descriptor from `first` on can be opened for the life of the object.
class NoDescriptorsFrom {
 public:
  explicit NoDescriptorsFrom(int first) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit limit{static_cast<rlim_t>(first), before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(::dup(STDERR_FILENO), -1);
  }
  ~NoDescriptorsFrom() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  NoDescriptorsFrom(const NoDescriptorsFrom&) = delete;
  NoDescriptorsFrom& operator=(const NoDescriptorsFrom&) = delete;

 private:
  rlimit before_{};
};

// Senders that never got a socket never flush, but end as all do, and the last flush connects.
void NoDescriptorAtInit(int /*length*/) {
  const Baseline baseline;
  const test::ScopedLogLevel silent(4);
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  const long before = DescriptorCount();
  {
    // The sanitizer of undefined behaviour opens a pipe when it sees a class for the first time.
    const Service first(agent.path(), "t0");
  }
  // The agent's ends of its connections would be free descriptors.
  EXPECT_TRUE(WaitFor([before] { return DescriptorCount() == before; }));
  agent.Take();
  std::unique_ptr<Service> service;
  const std::string log = LogOf([&] {
    const NoDescriptorsFrom none(LowestFreeDescriptor());
    service = std::make_unique<Service>(agent.path(), "t1");
  });
  for (const char* tenant : {"inf.metrics", "t1"}) {
    EXPECT_EQ(CountOf("]Sender[" + std::string(tenant) + "] Create Socket Fd Fail.\n", log), 1u);
  }
  EXPECT_EQ(CountOf("]Create socket failed.\n", log), 2u);
  {
    const AllKinds later(service->client(), "t2", "p");
    EXPECT_TRUE(later.Emit("0"));
    EXPECT_TRUE(agent.WaitForPackets(1));
    std::this_thread::sleep_for(kTwoFlushes);
  }
  for (const test::Point& point : agent.Points()) {
    EXPECT_EQ(point.tenant, "t2");
  }
  service->StopEmitting();
  test::SleepToMidSecond();
  service->client().FlushAndExit();
  EXPECT_TRUE(agent.WaitUntil([&](const AgentSocket::Packets& packets) {
    return EmissionsOf(packets, "t1") >= service->emissions();
  }));
  service.reset();
  agent.Stop();
}

// Forgets its socket while there is no other, and gets one as soon as there is.
void NoDescriptorAtReconnect(int /*length*/) {
  const Baseline baseline;
  const test::ScopedLogLevel silent(4);
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  // All from here on are the client's, or come after those.
  const int first = LowestFreeDescriptor();
  Service service(agent.path(), "t1");
  EXPECT_TRUE(agent.WaitForPackets(2));
  agent.Stop();
  std::string log;
  {
    // The agent's own are free again; they lie below.
    std::vector<UniqueFd> fill;
    while (fill.empty() || fill.back().get() < first) {
      fill.emplace_back(::dup(STDERR_FILENO));
    }
    fill.pop_back();
    log = LogOf([&] {
      const NoDescriptorsFrom none(first);
      service.ExpectFailure(EBADF);
      std::this_thread::sleep_for(seconds(1));  // of some more
    });
  }
  EXPECT_GE(CountOf("]Sender[t1] Send fail with errno[32]", log), 1u) << "the agent is gone";
  EXPECT_GE(CountOf("]Sender[t1] Send fail with errno[9]", log), 1u) << "and so is the socket";
  EXPECT_GE(CountOf("]Sender[t1] Create Socket Fd Fail.\n", log), 2u);
  agent.Restart();
  service.ExpectFullTotals(agent);
}

// The boundaries of `tenant` in the order in which they were flushed, with the times of sending, as
// far as these are of the clock as it stands now.
struct Flush {
  int64_t second;
  int64_t sent_ms;
};
std::vector<Flush> FlushesOf(const AgentSocket::Packets& packets, const std::string& tenant) {
  constexpr int64_t kSameClockMs = 1000000;
  std::vector<Flush> flushes;
  std::set<int64_t> seen;
  for (const test::ReceivedPacket& received : packets) {
    const int64_t sent_ms = received.packet.send_time_ms;
    if (received.packet.tenant != tenant ||
        std::abs(sent_ms - METRICS::WallMillis()) > kSameClockMs) {
      continue;
    }
    for (const agent::Block& block : received.packet.blocks) {
      // Gauges report no interval but the one that ends.
      if (block.name == "p.suffixed.store" && seen.insert(block.timestamp).second) {
        flushes.push_back({block.timestamp, sent_ms});
      }
    }
  }
  return flushes;
}

// A flush that was slept towards still has the boundary of the old clock; the ones that follow have
// those of the new one, whatever was there before.
void ExpectNextBoundaries(AgentSocket& agent, const std::string& tenant, int interval) {
  std::vector<Flush> flushes;
  EXPECT_TRUE(agent.WaitUntil([&](const AgentSocket::Packets& packets) {
    flushes = FlushesOf(packets, tenant);
    return flushes.size() >= 2;
  })) << "no flushes any more";
  for (size_t i = 0; i < flushes.size(); ++i) {
    EXPECT_EQ(flushes[i].second % interval, 0);
    if (i > 0) {
      EXPECT_GE(flushes[i].sent_ms, flushes[i].second * 1000);
      EXPECT_LT(flushes[i].sent_ms, flushes[i].second * 1000 + 5000) << "even on a busy machine";
    }
  }
}

// A wall clock that is set while everything runs: nothing is lost, and nothing waits for a time
// that is far away now.
void ClockLeaps(int length) {
  const Baseline baseline;
  const test::ScopedLogLevel silent(4);
  const TempDir dir;
  AgentSocket agent(dir.File("s"));
  const std::map<std::string, int> intervals = {{"t1", 1}, {"t2", 2}};
  std::vector<int> clocks = {7201, -3599, 0};  // seconds by which it is fast
  for (int i = 1; i <= length / 4; ++i) {      // each leap takes some seconds
    clocks.insert(clocks.begin(), (i % 2 == 0 ? 3600 : -3600) * i + i % 7);
  }
  std::vector<std::unique_ptr<Service>> services;
  services.reserve(intervals.size());
  for (const auto& [tenant, interval] : intervals) {
    services.push_back(std::make_unique<Service>(agent.path(), tenant, interval));
  }
  EXPECT_TRUE(agent.WaitUntil([](const AgentSocket::Packets& packets) {
    return !FlushesOf(packets, "t1").empty() && !FlushesOf(packets, "t2").empty();
  }));
  size_t skipped = 0;
  const std::string log = LogOf(
      [&] {
        int before = 0;
        for (const int clock : clocks) {
          test::SleepToMidSecond();  // clear of the flushes
          agent.Take();
          SetWallClockAhead(seconds(clock));
          skipped += clock > before + 2 ? intervals.size() : 0;
          before = clock;
          for (const auto& [tenant, interval] : intervals) {
            SCOPED_TRACE(tenant + " at " + std::to_string(clock));
            ExpectNextBoundaries(agent, tenant, interval);
          }
        }
      },
      2);
  EXPECT_GE(CountOf("]Last send timeout, last_timetamp: ", log), skipped) << log;
  if (testing::UnitTest::GetInstance()->Failed()) {
    std::fputs(log.c_str(), stderr);  // with the failures above
  }
  for (const std::unique_ptr<Service>& service : services) {
    service->ExpectFullTotals(agent);
  }
}

const std::vector<Case> kCases = {
    {"stalled_agent", StalledAgent},
    {"clock_leaps", ClockLeaps},
    {"absent_agents", AbsentAgents},
    {"agent_hangs_up", AgentHangsUp},
    {"no_descriptor_at_init", NoDescriptorAtInit},
    {"no_descriptor_at_reconnect", NoDescriptorAtReconnect},
};

}  // namespace
}  // namespace tidegate::stress

int main(int argc, char** argv) {
  return tidegate::stress::RunCases("faults", "Lets the surroundings of a client fail.", 1,
                                    tidegate::stress::kCases, argc, argv);
}

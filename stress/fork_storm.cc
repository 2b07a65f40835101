// A process that forks at random moments while its threads emit, flush, log, expire series and make
// and remove everything that there is. Its own totals stay exact; each child serves anew, and what
// it emits arrives once.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "metrics/metric_factory.h"
#include "metrics/metric_sender_manager.h"
#include "support/agent_socket.h"
#include "support/command_line.h"
#include "support/environment.h"
#include "support/kinds.h"
#include "support/report.h"
#include "support/sanitized.h"

namespace tidegate::stress {
namespace {

using METRICS::MetricClient;
using METRICS::ReturnCode;
using METRICS::Store;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using test::AgentSocket;
using test::Point;

constexpr seconds kChildPatience{10};
constexpr size_t kChildrenAtATime = 3;
constexpr int kChildSeries = 3;
constexpr int kExactSeries = 300;

// Ordinary output goes nowhere for the life of the object: the log is there to be printed, not to
// be read.
class MutedOutput {
 public:
  MutedOutput() : before_(::dup(STDOUT_FILENO)) {
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(nowhere, STDOUT_FILENO);
    ::close(nowhere);
  }
  ~MutedOutput() {
    std::fflush(stdout);
    ::dup2(before_, STDOUT_FILENO);
    ::close(before_);
  }
  MutedOutput(const MutedOutput&) = delete;
  MutedOutput& operator=(const MutedOutput&) = delete;

 private:
  const int before_;
};

METRICS::CoreInitCfg SelfMonitored() {
  METRICS::CoreInitCfg core;
  core.force_self_monitor = true;
  core.expire_seconds = 1;
  core.monitor_interval = 1;
  return core;
}

std::string ChildTenant(int number) { return "child" + std::to_string(number); }

// The work of a child. 0 is success.
int LiveAsChild(MetricClient& client, const std::string& socket, int number) {
  switch (number % 3) {  // these three are one in a child
    case 0:
      client.AtFork();
      break;
    case 1:
      client.Exit();
      break;
    default:
      client.FlushAndExit();
  }
  if (client.Init(std::make_unique<test::TestConfiger>(test::kNeverDue),
                  std::make_unique<StaticVendor>(socket), nullptr,
                  SelfMonitored()) != ReturnCode::kOk) {
    return 2;
  }
  METRICS::MetricRegistryCfg registry;
  registry.tenant = ChildTenant(number);
  const auto [metric, code] = client.CreateMetric(registry, {"once", {"w"}, {}, {}});
  const AllKinds kinds(client, registry.tenant, "p");
  if (code != ReturnCode::kOk || !kinds.made()) {
    return 3;
  }
  for (int series = 0; series < kChildSeries; ++series) {
    const std::string w = std::to_string(series);
    if (metric->WithTags({{"w", w}})->Emit({Store(number)}) != ReturnCode::kOk || !kinds.Emit(w)) {
      return 4;
    }
  }
  client.FlushAndExit();
  return 0;
}

// The busy process.
class Storm {
 public:
  Storm(int forks, uint64_t seed, Report& report)
      : forks_(forks),
        random_(seed),
        report_(report),
        agent_(dir_.File("s")),
        client_(Options(agent_.path())),
        kinds_(*client_, "t1", "p") {}

  void Run();

 private:
  struct Child {
    int number;
    pid_t pid;
    steady_clock::time_point born;
  };
  struct Arrivals {
    double total = 0;  // of `AllKinds`
    std::vector<double> once;
  };

  static test::TestClientOptions Options(const std::string& path) {
    test::TestClientOptions options = test::ReportTo(path);
    options.core = SelfMonitored();
    options.log_level.reset();
    return options;
  }

  void StartThreads();
  void MakeAndRemove(int worker);
  void PauseBeforeFork();
  void Fork(int number);
  // Waits until at most `left` children live.
  void Reap(size_t left);
  bool HasEnded(const Child& child);
  void TakeArrivals();
  void CheckArrivals();

  const int forks_;
  std::mt19937_64 random_;
  Report& report_;
  const test::TempDir dir_;
  AgentSocket agent_;
  test::TestClient client_;
  const AllKinds kinds_;
  std::atomic<long> emissions_{0};
  std::atomic<long> turns_{0};
  test::Workers workers_;
  std::vector<Child> children_;
  milliseconds slowest_{0};
  std::map<std::string, Arrivals> arrivals_;  // by tenant
};

void Storm::Run() {
  if (!report_.Check(kinds_.made(), "the metrics could not be made")) {
    return;
  }
  StartThreads();
  for (int number = 0; number < forks_ && report_.violations() == 0; ++number) {
    PauseBeforeFork();
    Reap(kChildrenAtATime - 1);
    Fork(number);
    TakeArrivals();
  }
  Reap(0);
  workers_.Stop();
  test::WaitFor([this] {
    TakeArrivals();
    return arrivals_["t1"].total >= static_cast<double>(emissions_.load());
  });
  client_->FlushAndExit();
  agent_.Stop();
  TakeArrivals();
  CheckArrivals();
}

void Storm::StartThreads() {
  for (int series = 0; series < kExactSeries; ++series) {
    kinds_.Emit(std::to_string(series));
    ++emissions_;
  }
  workers_.Start(2, [this](int) {
    for (int n = 0; n < 200; ++n) {
      const long number = ++emissions_;
      report_.Check(kinds_.Emit(std::to_string(number % kExactSeries)), "an emission was refused");
    }
  });
  workers_.Start(2, [this](int worker) { MakeAndRemove(worker); });
}

// Tenants, registries, metrics of all kinds and series, some of which are left to the expiry.
void Storm::MakeAndRemove(int worker) {
  const std::string tenant = "brief" + std::to_string(worker);
  for (const char* prefix : {"a", "b", "c"}) {
    const AllKinds brief(*client_, tenant, prefix);
    METRICS::Metric* const idle =
        client_->CreateMetric({prefix, {}, tenant}, {"idle", {"w"}, {}, {}}).metric;
    for (int series = 0; series < 20; ++series) {
      brief.Emit(std::to_string(series));
      idle->WithTags({{"w", std::to_string(series)}})->last_update_ = 0;
    }
    client_->metric_factory_->RemoveRegistry(prefix, tenant);
  }
  // Not each time: it waits for the thread.
  if (++turns_ % 50 == 0) {
    client_->sender_manager_->RemoveSender(tenant);
  }
}

// At random, and every fourth time to where a flush is likely to be under way.
void Storm::PauseBeforeFork() {
  const auto now = std::chrono::system_clock::now();
  const bool aim = random_() % 4 == 0;
  const auto moment =
      now + microseconds(random_() % (aim ? 4000 : 30000)) +
      (aim ? seconds(1) - now.time_since_epoch() % seconds(1) : std::chrono::nanoseconds(0));
  while (std::chrono::system_clock::now() + milliseconds(4) < moment) {
    Reap(kChildrenAtATime);
    std::this_thread::sleep_for(milliseconds(2));
  }
  std::this_thread::sleep_until(moment);
}

void Storm::Fork(int number) {
  const auto born = steady_clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::_exit(LiveAsChild(*client_, agent_.path(), number));
  }
  if (report_.Check(pid > 0, "fork failed")) {
    children_.push_back({number, pid, born});
  }
}

void Storm::Reap(size_t left) {
  while (true) {
    children_.erase(std::remove_if(children_.begin(), children_.end(),
                                   [this](const Child& child) { return HasEnded(child); }),
                    children_.end());
    if (children_.size() <= left) {
      return;
    }
    std::this_thread::sleep_for(milliseconds(2));  // between two looks at the children
  }
}

bool Storm::HasEnded(const Child& child) {
  const auto age = std::chrono::duration_cast<milliseconds>(steady_clock::now() - child.born);
  int status = 0;
  const pid_t ended = ::waitpid(child.pid, &status, WNOHANG);
  if (ended == 0) {
    if (age < kChildPatience) {
      return false;
    }
    ::kill(child.pid, SIGKILL);
    ::waitpid(child.pid, nullptr, 0);
    report_.Violation(ChildTenant(child.number) + " hung and was killed");
  } else if (ended < 0) {
    report_.Violation(ChildTenant(child.number) + " cannot be waited for: " + std::strerror(errno));
  } else {
    report_.Check(status == 0,
                  ChildTenant(child.number) + " ended with status " + std::to_string(status));
  }
  slowest_ = std::max(slowest_, age);
  return true;
}

void Storm::TakeArrivals() {
  const AgentSocket::Packets packets = agent_.Take();
  for (const Point& point : test::PointsOf(packets)) {
    if (point.name == "once.store") {
      arrivals_[point.tenant].once.push_back(point.values.at(0));
    }
  }
  for (const test::ReceivedPacket& packet : packets) {
    const std::string& tenant = packet.packet.tenant;
    arrivals_[tenant].total += EmissionsOf({packet}, tenant);
  }
}

void Storm::CheckArrivals() {
  for (const std::string& error : agent_.Errors()) {
    report_.Violation("a packet could not be read: " + error);
  }
  const double total = arrivals_["t1"].total;
  report_.Check(total == static_cast<double>(emissions_.load()),
                "the parent emitted " + std::to_string(emissions_.load()) + ", of which " +
                    std::to_string(total) + " arrived");
  for (int number = 0; number < forks_; ++number) {
    const Arrivals& arrived = arrivals_[ChildTenant(number)];
    const std::vector<double> expected(kChildSeries, number);
    report_.Check(arrived.once == expected && arrived.total == kChildSeries,
                  ChildTenant(number) + ": " + std::to_string(arrived.once.size()) +
                      " points and a total of " + std::to_string(arrived.total) + " arrived");
  }
  report_.Figure("forks", forks_);
  report_.Figure("emissions", emissions_.load());
  report_.Figure("turns", turns_.load());
  report_.Figure("slowest_child_ms", slowest_.count());
}

int Main(int argc, char** argv) {
  CommandLine line("fork_storm", "Forks a busy process.", 0);
  int forks = 20;
  line.Add("--forks", forks, "How often; this counts, and not the seconds");
  line.AddSeed();
  if (const auto code = line.Parse(argc, argv)) {
    return *code;
  }
  // Where it is inherited as ignored, nobody can tell how a child ended.
  std::signal(SIGCHLD, SIG_DFL);
  Report report("fork_storm");
  report.Figure("seed", static_cast<int64_t>(line.seed()));
  if (kSanitized) {
    std::fputs("fork_storm: skipped, a sanitizer does not survive a fork with live threads\n",
               stderr);
    report.Figure("forks", 0);
    return report.Finish();
  }
  {
    const MutedOutput muted;
    Storm(forks, line.seed(), report).Run();
  }
  return report.Finish();
}

}  // namespace
}  // namespace tidegate::stress

int main(int argc, char** argv) { return tidegate::stress::Main(argc, argv); }

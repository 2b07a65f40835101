// The numbers of the process and of its allocator.

#include "metrics/process_metrics.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "metrics/allocator_metrics.h"
#include "metrics/sampler_thread.h"
#include "support/agent_socket.h"
#include "support/environment.h"
#include "util/proc_stat.h"

namespace METRICS {
namespace {

TEST(ProcStatTest, IsReadWhateverTheNameOfTheProgram) {
  const std::string numbers =
      " S 1 2 3 0 -1 4194560 101 102 103 104 8589934592 106 107 108 20 0 7 0 1234567 "
      "18446744073709551615 321 18446744073709551615 1 1 0\n";
  for (const char* name : {"(cat)", "()", "(a b) R 1 (c)", "(x) S 1 2 3 4 5 6 7 8 9 (\n)", "())"}) {
    const auto stat = ParseProcStat("42 " + std::string(name) + numbers);
    ASSERT_TRUE(stat.has_value()) << name;
    const std::vector<uint64_t> got = {stat->minor_faults,  stat->major_faults,  stat->user_ticks,
                                       stat->system_ticks,  stat->threads,       stat->start_ticks,
                                       stat->virtual_bytes, stat->resident_pages};
    EXPECT_THAT(got, testing::ElementsAre(101, 103, 8589934592, 106, 7, 1234567,
                                          18446744073709551615u, 321))
        << name;
  }
  const std::string whole = "42 (cat)" + numbers;
  const size_t last = whole.find(" 321 ") + 1;
  for (size_t length = 0; length <= last; ++length) {
    EXPECT_FALSE(ParseProcStat(whole.substr(0, length)).has_value()) << length;
  }
  for (const char* no_number : {"-1", "1.5", "x", "18446744073709551616"}) {
    EXPECT_FALSE(ParseProcStat(whole.substr(0, last) + no_number + " 1\n").has_value());
  }
}

using tidegate::test::AgentSocket;
using tidegate::test::LogOf;
using tidegate::test::TempDir;

struct ProcessMetricsTest : testing::Test {
  // By name, the numbers of the newest point.
  std::map<std::string, std::vector<double>> End() {
    metrics->Stop();
    agent.Stop();
    std::map<std::string, std::vector<double>> last;
    std::map<std::string, int64_t> time;
    for (const tidegate::test::Point& point : agent.Points()) {
      if (point.timestamp > time[point.name]) {
        time[point.name] = point.timestamp;
        last[point.name] = point.values;
      }
    }
    return last;
  }
  tidegate::Options Options() const {
    tidegate::Options options;
    options.service = "s";
    options.interval = std::chrono::seconds(60);
    options.socket_path = agent.path();
    options.log_level = tidegate::LogLevel::kSilent;
    return options;
  }

  const TempDir folder;
  AgentSocket agent{folder.path() + "/s"};
  std::optional<tidegate::Metrics> metrics{Options()};
};

TEST_F(ProcessMetricsTest, TheProcessAndItsAllocatorComeWithTheLastFlush) {
  for (int i = 0; i < 2; ++i) {
    metrics->AddProcessMetrics();
    metrics->AddAllocatorMetrics();
  }
  std::map<std::string, std::vector<double>> last = End();
  for (const auto& [name, values] : last) {
    EXPECT_TRUE(std::isfinite(values[0])) << name;
  }
  EXPECT_EQ(last.size(), AllocatorMetrics::CanSay() ? 20u : 13u);
  EXPECT_EQ(last["s.process.starts"], (std::vector<double>{1, 1.0 / 60, 1}));
  EXPECT_NEAR(last["s.process.start_time_seconds"][0], static_cast<double>(::time(nullptr)), 60);
  EXPECT_GT(last["s.process.memory.virtual_bytes"][0], last["s.process.memory.resident_bytes"][0]);
  EXPECT_GT(last["s.process.memory.resident_bytes"][0], 1 << 20);
  EXPECT_GE(last["s.process.threads"][0],
            4);  // this, the agent's, the flushing and the sampling one
  EXPECT_GT(last["s.process.descriptors.open"][0], 3);
  EXPECT_LE(last["s.process.descriptors.open"][0], last["s.process.descriptors.limit"][0]);
  EXPECT_GT(last["s.process.page_faults.minor"][0], 100);
  EXPECT_GT(last["s.process.context_switches.voluntary"][0], 0);
}

TEST_F(ProcessMetricsTest, CountsIncreasesAndLeavesOutWhatCannotBeRead) {
  const std::string process = folder.path() + "/42";
  std::filesystem::create_directory(process);
  const auto write = [&](const std::string& minor_faults, const char* rest) {
    std::ofstream(process + "/stat") << "42 (x) S 1 2 3 0 -1 1 " + minor_faults + rest;
  };
  ProcessMetrics numbers(*metrics, process);
  const std::string text = LogOf([&] {
    for (int i = 0; i < 2; ++i) numbers.Report();  // there is nothing yet
  });
  EXPECT_THAT(text, testing::HasSubstr("/42/stat: No such file"));
  EXPECT_THAT(text, testing::HasSubstr("/42/fd: No such file"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;

  const long ticks = ::sysconf(_SC_CLK_TCK);
  const std::string user = " 0 0 0 " + std::to_string(ticks / 2);
  std::filesystem::create_directory(process + "/fd");
  for (int i = 0; i < 300; ++i) std::ofstream(process + "/fd/" + std::to_string(i));
  for (const char* minor_faults : {"5", "4294967296", "4294967290", "4294967301", "none"}) {
    write(minor_faults, (user + " 7 0 0 20 0 3 0 100 4096 2\n").c_str());
    numbers.Report();
  }
  std::map<std::string, std::vector<double>> last = End();
  EXPECT_EQ(last["s.process.page_faults.minor"][0], 4294967301);
  EXPECT_EQ(last["s.process.cpu.user_seconds"][0], 0.5);
  EXPECT_EQ(last["s.process.memory.resident_bytes"][0], 2.0 * static_cast<double>(::getpagesize()));
  EXPECT_EQ(last["s.process.threads"][0], 3);
  EXPECT_EQ(last["s.process.descriptors.open"][0], 299);  // it leaves out that of its own
}

TEST_F(ProcessMetricsTest, AForkedChildHasItsOwn) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the child of a process with threads must not start any";
#endif
  const tidegate::Sampler sampler = metrics->Sample("pid", [] { return ::getpid(); });
  metrics->AddProcessMetrics();
  AskSamplersNow();
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(20);
    metrics->AtFork();
    const bool in_service = metrics->Init();
    metrics->Stop();
    ::_exit(in_service ? 0 : 1);
  }
  int status = -1;
  EXPECT_TRUE(::waitpid(child, &status, 0) == child && status == 0) << status;
  agent.Stop();  // what the parent has does not get there
  std::map<std::string, double> sum;
  for (const tidegate::test::Point& point : agent.Points()) sum[point.name] += point.values[0];
  EXPECT_EQ(sum["s.pid"], child);
  EXPECT_EQ(sum["s.process.starts"], 1);
}

TEST_F(ProcessMetricsTest, SamplersOfTheFacade) {
  std::vector<tidegate::Sampler> samplers;
  samplers.push_back(metrics->Sample("length", {{"queue", "a"}}, [] { return 3u; }));
  samplers.push_back(metrics->Sample("length", {{"queue", "b"}}, [] { return 2.5; }));
  samplers.push_back(metrics->Sample("none", [] { return std::nan(""); }));
  for (const tidegate::Sampler& sampler : samplers) EXPECT_TRUE(sampler) << sampler.Error();
  EXPECT_EQ(LogOf([&] { samplers.push_back(metrics->Sample("a b", [] { return 1; })); }, 4), "");
  samplers.push_back(metrics->Sample("no", {}));
  for (size_t i : {3u, 4u}) EXPECT_TRUE(!samplers[i] && !samplers[i].Error().empty()) << i;
  metrics->Stop();
  agent.Stop();
  double sum = 0;
  for (const tidegate::test::Point& point : agent.Points()) {
    EXPECT_EQ(point.name, "s.length");
    sum += point.values[0] * (point.tags[0].value == "a" ? 100 : 1);
  }
  EXPECT_EQ(sum, 302.5);
  EXPECT_FALSE(metrics->Sample("late", [] { return 1; }));
  metrics.reset();  // before its samplers
}

}  // namespace
}  // namespace METRICS

// The numbers of the process and of its allocator.

#include "metrics/process_metrics.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "metrics/allocator_metrics.h"
#include "support/environment.h"
#include "tidegate/testing.h"
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

using tidegate::test::LogOf;
using tidegate::test::TempDir;
using tidegate::testing::Receiver;

struct ProcessMetricsTest : testing::Test {
  // Of a metric of this service, the newest number; -1 for none.
  double Value(const std::string& name, const tidegate::testing::Tags& tags = {},
               const char* field = "") const {
    return receiver.Value("s." + name, tags, field).value_or(-1);
  }

  Receiver receiver;
  std::optional<tidegate::Metrics> metrics{receiver.Options("s")};
};

TEST_F(ProcessMetricsTest, TheProcessAndItsAllocatorComeWithEachFlush) {
  for (int i = 0; i < 2; ++i) {
    metrics->AddProcessMetrics();
    metrics->AddAllocatorMetrics();
  }
  for (int flushes = 1; flushes <= 3; ++flushes) receiver.FlushNow();
  metrics->Stop();  // a fourth one
  std::map<std::string, int> points;
  for (const tidegate::testing::Point& point : receiver.Points()) {
    for (double value : point.values) EXPECT_TRUE(std::isfinite(value)) << point;
    ++points[point.name];
  }
  EXPECT_EQ(points.size(), AllocatorMetrics::CanSay() ? 20u : 13u);
  for (const auto& [name, count] : points) EXPECT_GE(count, 4) << name;
  std::vector<double> starts = receiver.Values("s.process.starts", {}, "delta");
  EXPECT_EQ(std::accumulate(starts.begin(), starts.end(), 0.0), 1);
  timespec up{};  // an `exec`, as by the shell that runs this, does not change the start
  ::clock_gettime(CLOCK_BOOTTIME, &up);
  const double age = static_cast<double>(::time(nullptr)) - Value("process.start_time_seconds");
  EXPECT_TRUE(age > -60 && age < static_cast<double>(up.tv_sec) + 60) << age;
  EXPECT_GT(Value("process.memory.virtual_bytes"), Value("process.memory.resident_bytes"));
  EXPECT_GT(Value("process.memory.resident_bytes"), 1 << 20);
  EXPECT_GE(Value("process.threads"), 4);  // of the test, the receiver, the flush and the samplers
  EXPECT_GT(Value("process.descriptors.open"), 3);
  EXPECT_LE(Value("process.descriptors.open"), Value("process.descriptors.limit"));
  EXPECT_GT(Value("process.page_faults.minor"), 100);
  EXPECT_GT(Value("process.context_switches.voluntary"), 0);
}

TEST_F(ProcessMetricsTest, CountsIncreasesAndLeavesOutWhatCannotBeRead) {
  const TempDir folder;
  const auto write = [&](const std::string& minor_faults, const std::string& rest) {
    std::ofstream(folder.path() + "/stat") << "42 (x) S 1 2 3 0 -1 1 " + minor_faults + rest;
  };
  ProcessMetrics numbers(*metrics, folder.path());
  const std::string text = LogOf(
      [&] {
        for (int i = 0; i < 2; ++i) numbers.Report();  // there is nothing yet
      },
      2);
  EXPECT_THAT(text, testing::HasSubstr("/stat: No such file"));
  EXPECT_THAT(text, testing::HasSubstr("/fd: No such file"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;

  const std::string half_a_second = std::to_string(::sysconf(_SC_CLK_TCK) / 2);
  std::filesystem::create_directory(folder.path() + "/fd");
  for (int i = 0; i < 300; ++i) std::ofstream(folder.path() + "/fd/" + std::to_string(i));
  for (const char* minor_faults : {"5", "4294967296", "4294967290", "4294967301", "none"}) {
    write(minor_faults, " 0 0 0 " + half_a_second + " 7 0 0 20 0 3 0 100 4096 2\n");
    numbers.Report();
  }
  receiver.FlushNow();
  EXPECT_EQ(Value("process.page_faults.minor"), 4294967301);
  EXPECT_EQ(Value("process.cpu.user_seconds"), 0.5);
  EXPECT_EQ(Value("process.memory.resident_bytes"), 2.0 * ::getpagesize());
  EXPECT_EQ(Value("process.threads"), 3);
  EXPECT_EQ(Value("process.descriptors.open"), 299);  // it leaves out that of its own
}

TEST_F(ProcessMetricsTest, AForkedChildHasItsOwn) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the child of a process with threads must not start any";
#endif
  const tidegate::Sampler sampler = metrics->Sample("pid", [] { return ::getpid(); });
  metrics->AddProcessMetrics();
  receiver.FlushNow();
  receiver.Clear();
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
  EXPECT_EQ(Value("pid"), child);
  EXPECT_EQ(Value("process.starts", {}, "delta"), 1);
}

TEST_F(ProcessMetricsTest, SamplersOfTheFacade) {
  int calls = 0;
  std::vector<tidegate::Sampler> samplers;
  samplers.push_back(metrics->Sample("length", {{"queue", "a"}}, [&] { return ++calls; }));
  samplers.push_back(metrics->Sample("length", {{"queue", "b"}}, [] { return 2.5; }));
  samplers.push_back(metrics->Sample("none", [] { return std::nan(""); }));
  for (const tidegate::Sampler& sampler : samplers) EXPECT_TRUE(sampler) << sampler.Error();
  samplers.push_back(metrics->Sample("length", [] { return 1; }));  // other tag names
  samplers.push_back(metrics->Sample("no", {}));
  for (size_t i : {3u, 4u}) EXPECT_TRUE(!samplers[i] && !samplers[i].Error().empty()) << i;
  for (int flushes = 1; flushes <= 3; ++flushes) {
    receiver.FlushNow();
    EXPECT_EQ(Value("length", {{"queue", "a"}}), flushes);
  }
  EXPECT_EQ(Value("length", {{"queue", "b"}}), 2.5);
  EXPECT_EQ(Value("none"), -1);
  receiver.Advance(std::chrono::seconds(100));  // ten intervals
  EXPECT_EQ(Value("length", {{"queue", "a"}}), 13);
  metrics->Stop();
  EXPECT_EQ(Value("length", {{"queue", "a"}}), 14);
  EXPECT_FALSE(metrics->Sample("late", [] { return 1; }));
  metrics.reset();  // before its samplers
}

}  // namespace
}  // namespace METRICS

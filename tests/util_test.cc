#include <sys/time.h>

#include <csignal>
#include <random>

#include "support/environment.h"
#include "util/metric_clock_util.h"
#include "util/metric_data_util.h"
#include "util/metric_log.h"

namespace METRICS {
namespace {

using std::chrono::milliseconds;
using testing::MatchesRegex;
using tidegate::test::LogOf;

TEST(LogTest, LevelGatesLinesAndTheirArguments) {
  int computed = 0;
  const auto log_all = [&computed] {
    METRICS_LOG_DEBUG("%d\n", ++computed);
    METRICS_LOG_INFO("%d\n", ++computed);
    METRICS_LOG_WARN("%d\n", ++computed);
    METRICS_LOG_ERROR("%d\n", ++computed);
  };
  const std::string severities[] = {"DEBUG", "Info ", "Warn ", "Error"};
  for (uint8_t level = 0; level <= 5; ++level) {
    std::string lines;
    for (size_t i = level; i < 4; ++i) {
      lines += "\\[MetricSDK\\]\\[" + severities[i] + "\\]\\[util_test.cc:[0-9]+\\][1-4]\n";
    }
    computed = 0;
    EXPECT_THAT(LogOf(log_all, level), MatchesRegex(lines)) << int{level};
    EXPECT_EQ(computed, level < 4 ? 4 - level : 0);
  }
}

TEST(ClockTest, FlushIntervalsOutsideTheListBecomeThirtyWithAWarning) {
  for (const int good : {1, 5, 10, 15, 30, 60}) EXPECT_EQ(CheckFlushInterval(good), good);
  for (const int bad : {-5, 0, 2, 61}) {
    EXPECT_THAT(LogOf([bad] { EXPECT_EQ(CheckFlushInterval(bad), 30); }),
                MatchesRegex(R"(\[MetricSDK\]\[Warn \]\[metric_clock_util.cc:[0-9]+\]Input flush )"
                             R"(interval invalid, should be \{1,5,10,15,30,60\}, use 30 instead.)"
                             "\n"));
  }
}

TEST(StepSleepTest, EndsByTimeWhateverTheSignalsOrBySliceWhenStopped) {
  std::signal(SIGALRM, [](int) {});
  const itimerval often{{0, 7000}, {0, 7000}}, off{};
  setitimer(ITIMER_REAL, &often, nullptr);
  const struct {
    MetricState state;  // at the start; SHUTDOWN after 300 ms
    int total_ms, step_ms, at_least_ms;
    bool whole;
  } cases[] = {{MetricState::READY, 100, 30, 100, true},
               {MetricState::READY, 1500, 2000, 1500, true},  // no look after the last slice
               {MetricState::READY, 60000, 20, 300, false},
               {MetricState::READY, 1, 0, 300, false},  // spins
               {MetricState::INIT, 0, 200, 0, false},
               {MetricState::BLOCKED, 60000, 60000, 0, false}};
  for (const auto& [at_start, total_ms, step_ms, at_least_ms, whole] : cases) {
    std::atomic<MetricState> state{at_start};
    const auto start = std::chrono::steady_clock::now();
    std::thread stopper([&state] {
      std::this_thread::sleep_for(milliseconds(300));
      state = MetricState::SHUTDOWN;
    });
    EXPECT_EQ(SyncMilliStepSleep(total_ms, step_ms, state), whole) << total_ms;
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(took >= milliseconds(at_least_ms) && took < milliseconds(20000)) << total_ms;
    stopper.join();
  }
  setitimer(ITIMER_REAL, &off, nullptr);
}

TEST(CompressionTest, RoundTripsAtEveryLevelAndThrowsWithZlibsNumberAndText) {
  std::string noise(100000, '\0');
  std::mt19937 random(1);
  for (char& c : noise) c = static_cast<char>(random());
  // A stream of level 0 is 11 bytes longer than its input: 32757 fill the output buffer exactly.
  for (const size_t size : {0u, 32757u, 32758u, 100000u}) {
    for (const int level : {-1, 0, 9}) {
      const std::string data = noise.substr(0, size);
      EXPECT_EQ(decompress_string(compress_string(data, level)), data) << size << " at " << level;
    }
  }
  using testing::ThrowsMessage;
  EXPECT_THAT([] { compress_string("x", 10); },
              ThrowsMessage<std::runtime_error>("deflateInit failed while compressing."));
  EXPECT_THAT([] { decompress_string("no zlib stream"); },
              ThrowsMessage<std::runtime_error>(
                  "Exception during zlib decompression: (-3) incorrect header check"));
  EXPECT_THAT([] { decompress_string(compress_string("cut", 9).substr(0, 8)); },
              ThrowsMessage<std::runtime_error>("Exception during zlib decompression: (-5) "));
}

}  // namespace
}  // namespace METRICS

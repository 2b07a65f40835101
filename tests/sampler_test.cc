// Samplers: when they are asked, and what a callback that throws, hangs or outlives its thread
// does.

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "metrics/sampler_thread.h"
#include "support/environment.h"
#include "tidegate/metrics.h"
#include "util/wall_clock.h"

namespace METRICS {
namespace {

using tidegate::Sampler;
using tidegate::test::WaitFor;

struct SamplerTest : testing::Test {
  // Whose thread asks nobody on its own but in one second of eleven days.
  std::shared_ptr<SamplerThread> thread = std::make_shared<SamplerThread>(1000000);
  std::atomic<int> asked{0};
  std::function<void()> count = [this] { ++asked; };
  ~SamplerTest() override { thread->Stop(); }
};

TEST_F(SamplerTest, AsksOnceBeforeEachBoundaryAndOnceMoreAtTheEnd) {
  thread = std::make_shared<SamplerThread>(1);
  std::set<int64_t> boundaries;  // that it was asked for within their last tenth
  const Sampler sampler = thread->Add("s", [&] {
    const int64_t now_ms = WallMillis();
    if (now_ms % 1000 >= 900) boundaries.insert(now_ms / 1000);
    ++asked;
  });
  WaitFor([&] { return asked >= 3; });
  thread->Stop();
  // The call at the end comes at any time, and any may be put off the processor on its way.
  EXPECT_GT(static_cast<int>(boundaries.size()), asked / 2);
  const int at_end = asked;
  EXPECT_GE(at_end, 4);
  thread->AskNow();
  EXPECT_EQ(asked, at_end);
  const Sampler late = thread->Add("late", count);
  EXPECT_FALSE(late);
  EXPECT_EQ(late.Error(), "the metrics have ended");
}

TEST_F(SamplerTest, CallbacksMakeAndEndSamplersThemselvesIncluded) {
  std::optional<Sampler> self;
  std::optional<Sampler> other = thread->Add("other", count);
  std::vector<Sampler> made;
  auto captured = std::make_shared<int>();
  self = thread->Add("self", [&, captured] {
    other.reset();
    self.reset();
    made.push_back(thread->Add("made", count));
  });
  thread->AskNow();
  EXPECT_EQ(asked, 0);  // the newest is asked first
  EXPECT_EQ(captured.use_count(), 1);
  thread->AskNow();
  EXPECT_EQ(asked, 1);
  made.front() = Sampler();
  thread->AskNow();
  EXPECT_EQ(asked, 1);
}

TEST_F(SamplerTest, OneThatThrowsIsCountedAndToldOnce) {
  testing::internal::CaptureStdout();
  const Sampler before = thread->Add("before", count);
  const Sampler bad = thread->Add("bad", [this] {
    ++asked;
    if (asked % 2 == 0) throw 1;
    throw std::runtime_error("no");
  });
  const Sampler after = thread->Add("after", count);
  for (int i = 0; i < 3; ++i) thread->AskNow();
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_EQ(asked, 9);
  EXPECT_EQ(bad.Failures(), 3u);
  EXPECT_NE(text.find("Sampler[bad] threw (1 times so far): "), std::string::npos) << text;
  EXPECT_EQ(text.find("so far", text.find("so far") + 1), std::string::npos) << text;
}

// A callback that hangs until it is let go.
struct Gate {
  std::promise<void> opened;
  std::shared_future<void> open = opened.get_future().share();
  std::atomic<bool> entered{false};
  void Pass() {
    entered = true;
    open.wait();
  }
};

TEST_F(SamplerTest, AnEndWaitsForTheCallThatRuns) {
  Gate gate;
  std::atomic<bool> ended{false};
  Sampler sampler = thread->Add("s", [&] { gate.Pass(); });
  std::thread asker([&] { thread->AskNow(); });
  WaitFor([&] { return gate.entered.load(); });
  std::thread ender([&] {
    sampler.End();
    ended = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // time to do it wrong
  EXPECT_FALSE(ended);
  gate.opened.set_value();
  ender.join();
  asker.join();
}

TEST_F(SamplerTest, OneThatHangsIsToldOnceAndTheThreadIsLeftToIt) {
  thread = std::make_shared<SamplerThread>(1);
  auto gate = std::make_shared<Gate>();
  testing::internal::CaptureStdout();
  std::optional<Sampler> first = thread->Add("first", count);
  std::optional<Sampler> hung = thread->Add("hung", [gate] { gate->Pass(); });
  WaitFor([&] { return gate->entered.load(); });
  const int before = asked;
  thread->BeforeFlush();                                        // not late yet
  std::this_thread::sleep_for(std::chrono::milliseconds(110));  // more than a tenth of the interval
  for (int i = 0; i < 2; ++i) thread->BeforeFlush();
  thread->Stop();
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_NE(text.find("Sampler[hung] still runs, "), std::string::npos) << text;
  EXPECT_NE(text.find("Sampler[hung] still runs: the end"), std::string::npos) << text;
  EXPECT_EQ(text.find("values are late", text.find("values are late") + 1), std::string::npos)
      << text;
  first.reset();
  gate->opened.set_value();
  hung.reset();
  EXPECT_EQ(asked, before);  // it came after the one that hung, and then the end had come
}

TEST_F(SamplerTest, TheFlushThreadTellsOfOneThatHangs) {
  tidegate::Options options;
  options.service = "s";
  options.interval = std::chrono::seconds(1);
  options.socket_path = "/tmp/nobody.listens";
  tidegate::Metrics metrics(options);
  std::atomic<bool> told{false};
  tidegate::SetLogSink([&](tidegate::LogLevel level, std::string_view text) {
    told = told || (level == tidegate::LogLevel::kError && text.find("Sampler[hung]") == 0);
  });
  const Sampler sampler =
      metrics.Sample("hung", [&] { return WaitFor([&] { return told.load(); }); });
  EXPECT_TRUE(WaitFor([&] { return told.load(); }));
  tidegate::SetLogSink(nullptr);
}

TEST_F(SamplerTest, AForkedChildGoesOnWithTheSameCallbacks) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the child of a process with threads must not start any";
#endif
  std::vector<Sampler> samplers;
  Gate gate;
  for (int i = 0; i < 3; ++i) samplers.push_back(thread->Add("s", count));
  samplers.push_back(thread->Add("hung", [&] { gate.Pass(); }));
  std::thread asker([&] { thread->AskNow(); });
  WaitFor([&] { return gate.entered.load(); });
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(20);
    gate.opened.set_value();  // in the child's memory alone
    samplers.pop_back();      // runs in the parent's thread only
    const bool refused = !thread->Add("early", count);
    thread->AtFork();
    thread->Stop();  // ends nothing: `Resume` comes
    samplers.push_back(thread->Add("paused", count));
    AskSamplersNow();
    const bool paused = asked == 0;
    const bool resumed = thread->Resume();
    AskSamplersNow();
    const bool all = asked == 4;
    samplers.pop_back();
    thread->Stop();
    ::_exit(refused && paused && resumed && all && asked == 7 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  gate.opened.set_value();
  asker.join();
  EXPECT_EQ(asked, 3);
}

TEST_F(SamplerTest, EndsOnAllThreadsWhileItAsks) {
  thread = std::make_shared<SamplerThread>(1);
  std::atomic<bool> stop{false};
  std::thread asker([&] {
    while (!stop) AskSamplersNow();
  });
  std::vector<std::thread> owners;
  for (int i = 0; i < 3; ++i) {
    owners.emplace_back([&] {
      for (int turn = 0; turn < 500; ++turn) {
        auto alive = std::make_unique<std::atomic<bool>>(true);
        Sampler sampler = thread->Add("s", [&asked = asked, state = alive.get()] {
          if (!*state) std::abort();
          ++asked;
        });
        if (turn % 3 == 0) std::this_thread::yield();
        sampler.End();
        *alive = false;
      }
    });
  }
  for (std::thread& owner : owners) owner.join();
  stop = true;
  asker.join();
  const int before = asked;
  thread->Stop();
  EXPECT_EQ(asked, before);
}

}  // namespace
}  // namespace METRICS

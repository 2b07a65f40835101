// Threads that come and go: the data of each is handed on, and nothing is lost by it.

#include <pthread.h>
#include <unistd.h>

#include <mutex>
#include <set>

#include "metrics/bound_series.h"
#include "support/environment.h"
#include "util/fork_guard.h"
#include "util/metric_clock_util.h"
#include "util/stoppable_thread.h"
#include "util/thread_slot.h"

namespace METRICS {
namespace {

using tidegate::test::WaitFor;

uint32_t SlotOfANewThread() {
  uint32_t slot = 0;
  std::thread([&slot] { slot = ThreadSlot(); }).join();
  return slot;
}

// Threads that are all there at once, as many as `count`, each with `work` done.
template <class Work>
void RunTogether(int count, Work work) {
  std::atomic<int> waiting{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&] {
      work();
      ++waiting;
      while (waiting < count) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      work();
    });
  }
  for (std::thread& thread : threads) thread.join();
}

struct ThreadTest : testing::Test {
  tidegate::test::TestClient client;
  Metric& metric = *client.Metric("m", {"a"});
};

TEST_F(ThreadTest, ASlotThatIsTakenByADestructorOfTheThreadIsHandedOn) {
  pthread_key_t key{};
  const auto emit_late = [](void* of) {
    static std::atomic<int> made{0};
    static_cast<Metric*>(of)->WithTags({{"a", std::to_string(++made)}})->Emit(Incr(1));
  };
  ASSERT_EQ(::pthread_key_create(&key, emit_late), 0);
  const uint32_t before = SlotOfANewThread();
  constexpr unsigned long kThreads = 60;
  for (unsigned long i = 0; i < kThreads; ++i) {
    std::thread([&] { ::pthread_setspecific(key, &metric); }).join();
  }
  ::pthread_key_delete(key);
  EXPECT_EQ(metric.emit_success_, kThreads);
  EXPECT_EQ(SlotOfANewThread(), before);
}

TEST_F(ThreadTest, HundredsHaveSlotsOfTheirOwnAndCountExactly) {
  BoundSeries bound;
  ASSERT_EQ(bound.Bind(&metric, {{"a", "bound"}}, IncrCounter(0)), ReturnCode::kOk);
  constexpr unsigned long kEach = 50;
  unsigned long threads = 0, taken = 0;
  int64_t now = 1000;
  for (const int count : {40, 100, 300, 100}) {
    std::mutex gate;
    std::set<uint32_t> slots;
    std::atomic<bool> done{false};
    std::thread flusher([&] {
      for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
        client.Flush(++now);
        taken += GetStatValue(metric.emit_success_);
      }
    });
    RunTogether(count, [&] {
      for (unsigned long i = 0; i < kEach; ++i) {
        bound.Emit(1);
        metric.WithTags({{"a", "looked up"}})->Emit(IncrCounter(1));
      }
      const std::lock_guard guard(gate);
      slots.insert(ThreadSlot());
    });
    threads += static_cast<unsigned long>(count);
    done = true;
    flusher.join();
    EXPECT_EQ(slots.size(), static_cast<size_t>(count));
    EXPECT_EQ(slots.count(kNoThreadSlot), 0u);
  }
  const auto total = static_cast<double>(2 * kEach * threads);
  for (const char* const series : {"bound", "looked up"}) {
    const auto item = metric.WithTags({{"a", series}});
    item->Emit(IncrCounter(0));  // it is silent by now, maybe
    EXPECT_EQ(item->Fields().at("counter")->Send(1).values.at(0), total) << series;
  }
  EXPECT_EQ(taken + metric.emit_success_, 4 * kEach * threads + 2);
}

TEST(ThreadSlotTest, TheLibrarysOwnThreadsTakeNone) {
  const uint32_t before = SlotOfANewThread();
  tidegate::test::TestClientOptions options;
  options.core.enable_expire = true;
  options.core.expire_seconds = 10;
  tidegate::test::TestClient client(options);
  Metric& metric = *client.Metric("m");
  std::thread([&metric] { metric.WithTags({})->last_update_ = 0; }).join();
  EXPECT_TRUE(WaitFor([&metric] { return metric.impl_->GetSeriesCount() == 0; })) << "no expiry";
  EXPECT_EQ(SlotOfANewThread(), before);
}

struct Sleeper : StoppableThread {
  void Start() {
    StartThread("sleeper", [this] {
      EnterThread("ms_sleeper");
      state_ = MetricState::READY;
      while (SyncMilliStepSleep(10, 5, state_)) {
      }
    });
    WaitFor([this] { return Running(); });
  }
  using StoppableThread::StopThread;
};

TEST(StoppableThreadDeathTest, AStopJoinsTheThreadAndForgetsItInAForkedChild) {
  Sleeper sleeper;
  EXPECT_TRUE(sleeper.StopThread()) << "it was never started";
  sleeper.Start();
  char name[16] = {};
  EXPECT_EQ(::pthread_getname_np(sleeper.thread_.native_handle(), name, sizeof(name)), 0);
  EXPECT_STREQ(name, "ms_sleeper");
  const auto stop_in_child = [&sleeper] {
    const ForkTeardown teardown;
    const bool joined = sleeper.StopThread();
    ::_exit(!joined && !sleeper.thread_.joinable() ? 0 : 1);
  };
  GTEST_FLAG_SET(death_test_style, "fast");
  EXPECT_EXIT(stop_in_child(), testing::ExitedWithCode(0), "");
  EXPECT_TRUE(sleeper.StopThread());
  EXPECT_EQ(sleeper.state_.load(), MetricState::SHUTDOWN);
  EXPECT_FALSE(sleeper.thread_.joinable());
}

}  // namespace
}  // namespace METRICS

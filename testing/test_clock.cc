#include "testing/test_clock.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "metrics/sampler_thread.h"
#include "util/wall_clock.h"

namespace tidegate::test {
namespace {

using METRICS::ClockHooks;
using METRICS::MetricState;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int64_t kMicrosPerMilli = 1000;
constexpr int64_t kMicrosPerSecond = 1000000;
constexpr int64_t kMinuteMillis = 60000;
constexpr seconds kLongestRest{30};
constexpr seconds kLongestAsk{4};  // a hung callback takes five
constexpr std::chrono::hours kLongestAdvance{10 * 366 * 24};
// How soon a thread that waits sees a stop, which nobody tells it.
constexpr milliseconds kLook{1};

[[noreturn]] void GiveUp(const char* why) {
  throw std::system_error(std::make_error_code(std::errc::timed_out), why);
}

// Throws where a callback hangs, which would otherwise hold up each boundary anew.
void AskSamplers() {
  const auto began = steady_clock::now();
  METRICS::AskSamplersNow();
  if (steady_clock::now() - began >= kLongestAsk) {
    GiveUp("a callback of a tidegate::Sampler does not return");
  }
}

// The last multiple of `period` up to `time`.
int64_t Floor(int64_t time, int64_t period) { return time - time % period; }

// The clock itself. The threads of the library are at rest in one of its two waits; it moves only
// while all are, and then waits until all are again.
class Clock {
 public:
  void Begin(const ClockHooks& hooks) {
    const std::lock_guard guard(mutex_);
    if (users_++ > 0) return;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    micros_ = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    METRICS::SetClockHooks(&hooks);
  }
  void End() {
    const std::lock_guard guard(mutex_);
    if (--users_ > 0) return;
    METRICS::SetClockHooks(nullptr);
    ++generation_;
    moved_.notify_all();
  }
  int64_t Micros() const { return micros_.load(std::memory_order_relaxed); }

  bool WaitForBoundary(int64_t period_ms, ClockHooks::State& state, int64_t& boundary_ms) {
    std::unique_lock lock(mutex_);
    Sleeper sleeper{period_ms, Millis(), 0};
    const bool due = Rest(sleeper, lock, state, [&] { return IsDue(sleeper); });
    boundary_ms = Floor(Millis(), period_ms);
    return due;
  }

  void Pause(int64_t pause_ms, ClockHooks::State& state) {
    thread_local uint64_t last_round = 0;
    const auto end = steady_clock::now() + milliseconds(pause_ms);
    std::unique_lock lock(mutex_);
    Sleeper sleeper{0, 0, last_round};
    Rest(sleeper, lock, state,
         [&] { return IsDue(sleeper) || (!still_ && steady_clock::now() >= end); });
    last_round = round_;
  }

  void Flush() {
    const std::lock_guard moving(moving_);
    AskSamplers();
    std::unique_lock lock(mutex_);
    const Stillness still(*this, lock);
    MakeRound(lock);
    int64_t target_ms = Millis() + 1;
    for (const Sleeper* sleeper = sleepers_; sleeper != nullptr; sleeper = sleeper->next) {
      if (sleeper->period_ms > 0) target_ms = std::max(target_ms, NextBoundary(*sleeper));
    }
    MoveTo(Floor(target_ms + kMinuteMillis - 1, kMinuteMillis) * kMicrosPerMilli, lock);
  }

  void Advance(seconds time) {
    const std::lock_guard moving(moving_);
    std::unique_lock lock(mutex_);
    const Stillness still(*this, lock);
    MakeRound(lock);
    const int64_t target = micros_ + time.count() * kMicrosPerSecond;
    while (true) {
      int64_t next = target + 1;
      for (const Sleeper* sleeper = sleepers_; sleeper != nullptr; sleeper = sleeper->next) {
        if (sleeper->period_ms > 0) {
          next = std::min(next, NextBoundary(*sleeper) * kMicrosPerMilli);
        }
      }
      if (next > target) break;
      lock.unlock();
      AskSamplers();
      lock.lock();
      MoveTo(next, lock);
    }
    MoveTo(target, lock);
    MakeRound(lock);
  }

 private:
  // A thread that rests: a flush thread until a boundary, or another one between two rounds.
  struct Sleeper {
    int64_t period_ms;    // 0: no flush thread
    int64_t from_ms;      // when a flush thread came to rest
    uint64_t last_round;  // that another one made
    Sleeper* next = nullptr;
  };
  // Keeps pauses from ending by themselves.
  class Stillness {
   public:
    Stillness(Clock& clock, std::unique_lock<std::mutex>& lock) : clock_(clock), lock_(lock) {
      clock_.still_ = true;
    }
    ~Stillness() {
      if (!lock_.owns_lock()) lock_.lock();
      clock_.still_ = false;
    }
    Stillness(const Stillness&) = delete;
    Stillness& operator=(const Stillness&) = delete;

   private:
    Clock& clock_;
    std::unique_lock<std::mutex>& lock_;
  };

  int64_t Millis() const { return micros_ / kMicrosPerMilli; }
  int64_t NextBoundary(const Sleeper& sleeper) const {
    return Floor(Millis(), sleeper.period_ms) + sleeper.period_ms;
  }
  bool IsDue(const Sleeper& sleeper) const {
    return sleeper.period_ms > 0 ? Floor(Millis(), sleeper.period_ms) > sleeper.from_ms
                                 : sleeper.last_round != round_;
  }

  // Until `done()`, the stop of the thread, or the end of this clock. True for the first of them.
  template <class Done>
  bool Rest(Sleeper& sleeper, std::unique_lock<std::mutex>& lock, ClockHooks::State& state,
            Done done) {
    const uint64_t generation = generation_;
    sleeper.next = std::exchange(sleepers_, &sleeper);
    rested_.notify_all();
    bool is_done = false;
    while (users_ > 0 && generation == generation_ && state.load() == MetricState::READY) {
      is_done = done();
      if (is_done) break;
      moved_.wait_for(lock, kLook);
    }
    Sleeper** link = &sleepers_;
    while (*link != &sleeper) link = &(*link)->next;
    *link = sleeper.next;
    return is_done;
  }

  void MoveTo(int64_t micros, std::unique_lock<std::mutex>& lock) {
    micros_ = micros;
    WaitForRest(lock);
  }
  void MakeRound(std::unique_lock<std::mutex>& lock) {
    ++round_;
    WaitForRest(lock);
  }
  void WaitForRest(std::unique_lock<std::mutex>& lock) {
    moved_.notify_all();
    const auto end = steady_clock::now() + kLongestRest;
    while (!AllRest()) {
      if (steady_clock::now() >= end) {
        GiveUp(
            "a thread of tidegate_metrics does not come to rest: it waits in a call of the "
            "service, or for an agent that does not read");
      }
      rested_.wait_for(lock, kLook);
    }
  }
  bool AllRest() const {
    int resting = 0;
    for (const Sleeper* sleeper = sleepers_; sleeper != nullptr; sleeper = sleeper->next) {
      if (IsDue(*sleeper)) return false;
      ++resting;
    }
    return resting >= METRICS::g_libraryThreads.load();
  }

  std::mutex moving_;  // for the whole of a movement; comes before `mutex_`
  std::mutex mutex_;   // for all below
  std::condition_variable moved_, rested_;
  std::atomic<int64_t> micros_{0};  // read without the mutex, too
  int users_ = 0;
  uint64_t generation_ = 0;  // of the clock: how often the system's came back
  uint64_t round_ = 1;       // that the threads with pauses are asked for
  bool still_ = false;
  Sleeper* sleepers_ = nullptr;  // a list, for which no memory is needed
};

// Never destroyed: threads of the library may outlive static objects.
alignas(Clock) unsigned char g_memory[sizeof(Clock)];
Clock& TheClock() {
  static Clock& clock = *new (g_memory) Clock;
  return clock;
}

time_t Seconds(time_t* /*out*/) noexcept {
  return static_cast<time_t>(TheClock().Micros() / kMicrosPerSecond);
}
constexpr ClockHooks kHooks{
    &Seconds, []() noexcept { return TheClock().Micros(); },
    [](int64_t period_ms, ClockHooks::State& state, int64_t& boundary_ms) {
      return TheClock().WaitForBoundary(period_ms, state, boundary_ms);
    },
    [](int64_t pause_ms, ClockHooks::State& state) { TheClock().Pause(pause_ms, state); }};

// A forked child has none of the threads, and may have the locks of some.
void ForgetParent() {
  METRICS::SetClockHooks(nullptr);
  METRICS::g_libraryThreads = 0;
  new (&TheClock()) Clock;
}
const int g_registered = (TheClock(), ::pthread_atfork(nullptr, nullptr, &ForgetParent));

}  // namespace

TestClock::TestClock() {
  if (g_registered != 0) {
    throw std::system_error(g_registered, std::generic_category(), "pthread_atfork");
  }
  TheClock().Begin(kHooks);
}

TestClock::~TestClock() { TheClock().End(); }

void TestClock::Flush() { TheClock().Flush(); }

void TestClock::Advance(seconds time) {
  if (time < seconds(0) || time > kLongestAdvance) {
    throw std::invalid_argument("Advance by " + std::to_string(time.count()) +
                                " s: it takes 0 s to ten years");
  }
  TheClock().Advance(time);
}

int64_t TestClock::Micros() { return TheClock().Micros(); }

}  // namespace tidegate::test

// The reader-writer lock whose readers do not meet: exclusion under a race, and in forked children.

#include "util/metric_lock.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>
#include <vector>

#include "util/wait.h"

namespace METRICS {
namespace {

void ReadOften(BiasedRwLock& lock) {
  for (int i = 0; i < 200; ++i) {  // more than it takes to bias the lock
    const FastReadGuard guard(lock);
  }
}

TEST(BiasedRwLockTest, ExcludesWritersFromReadersOfBothKindsAndFromEachOther) {
  constexpr long kReads = 5000;
  BiasedRwLock lock, around;
  ReadOften(around);
  long first = 0, second = 0;  // plain: for the thread sanitizer
  std::atomic<long> reads{0}, torn{0}, writes{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      for (; reads < kReads; ++writes) {
        ReadOften(lock);
        std::this_thread::yield();
        const WriteGuard guard(lock);
        ++first;
        if (first % 4 == 0) PauseInWait(UINT32_MAX);  // those who wait fall asleep
        ++second;
      }
    });
    threads.emplace_back([&, i] {
      for (; reads < kReads; ++reads) {
        std::this_thread::yield();  // readers without a pause starve writers
        const FastReadGuard outer(around);
        std::optional<FastReadGuard> fast;
        std::optional<ReadGuard<BiasedRwLock>> slow;
        i == 0 ? (void)fast.emplace(lock) : (void)slow.emplace(lock);
        const long seen = first;
        reads % 64 == 0 ? PauseInWait(UINT32_MAX) : std::this_thread::yield();
        torn += seen == second ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(torn == 0 && first == writes) << torn;
}

int ReadsUntilTheyAreFast(BiasedRwLock& lock) {
  for (int reads = 1;; ++reads) {
    const FastReadGuard guard(lock);
    if (t_reader_row != nullptr && t_reader_row->slots[0] == &lock) return reads;
  }
}

TEST(BiasedRwLockTest, IsBiasedSoonUnlessWritersAreFrequent) {
  constexpr int kSoon = 6, kLate = 66;
  BiasedRwLock lock;
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(ReadsUntilTheyAreFast(lock), kSoon);
    int needed = kSoon;
    for (int writes = 0; needed != kLate && writes < 10000; ++writes) {
      { const WriteGuard guard(lock); }
      needed = ReadsUntilTheyAreFast(lock);
      EXPECT_TRUE(needed >= kSoon && needed <= kLate) << needed;
    }
    EXPECT_EQ(needed, kLate);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // a bias that lasts
    const WriteGuard guard(lock);
  }
}

TEST(BiasedRwLockTest, AChildDoesNotWaitForReadersThatDoNotExistAndIsToldOfWriters) {
  BiasedRwLock read, written;
  ReadOften(read);
  std::atomic<int> step{0};
  std::thread other([&] {
    const FastReadGuard reading(read);
    const WriteGuard writing(written);
    for (step = 1; step < 2;) std::this_thread::yield();
  });
  while (step == 0) std::this_thread::yield();
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(30);  // ends what hangs
    const auto write = [](BiasedRwLock& lock) { const WriteGuard guard(lock); };
    write(read);
    const bool right = written.ReinitAfterFork() && !read.ReinitAfterFork();
    write(written);
    ::_exit(right ? 0 : 1);
  }
  int status = -1;
  EXPECT_TRUE(::waitpid(child, &status, 0) == child && status == 0) << status;
  step = 2;
  other.join();
}

long NapsOfThisThread() {
  rusage usage{};
  ::getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;  // a yield is none
}

TEST(WaitTest, NapsSoThatAThreadOfAnyPriorityGivesUpTheProcessor) {
  const long wanted = NapsOfThisThread() + 20;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  WaitUntil([&] { return NapsOfThisThread() > wanted || std::chrono::steady_clock::now() >= end; });
  EXPECT_GT(NapsOfThisThread(), wanted);
}

TEST(WaitTest, AWriterThatIsCancelledWhileItWaitsForAReaderLeavesTheLockWhole) {
  struct Shared {
    BiasedRwLock lock;
    std::atomic<bool> writing{false};
  } shared;
  ReadOften(shared.lock);
  pthread_t writer{};
  {
    const FastReadGuard reading(shared.lock);
    const auto write = [](void* argument) -> void* {
      auto& [lock, writing] = *static_cast<Shared*>(argument);
      writing = true;
      { const WriteGuard guard(lock); }
      for (;;) ::pause();  // is cancelled here
    };
    ASSERT_EQ(::pthread_create(&writer, nullptr, write, &shared), 0);
    while (!shared.writing) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // until it naps
    ::pthread_cancel(writer);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // some naps more
  }
  void* result = nullptr;
  ::pthread_join(writer, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_FALSE(shared.lock.ReinitAfterFork()) << "nothing will ever unlock it";
}

}  // namespace
}  // namespace METRICS

// The reader-writer lock whose readers do not meet: exclusion under a race, and in forked children.

#include "util/metric_lock.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

namespace METRICS {
namespace {

void ReadOften(BiasedRwLock& lock) {
  for (int i = 0; i < 200; ++i) {  // more than it takes to bias the lock
    const FastReadGuard guard(lock);
  }
}

TEST(BiasedRwLockTest, ExcludesWritersFromReadersOfBothKindsAndFromEachOther) {
  constexpr long kReads = 5000;
  BiasedRwLock lock;
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
        ++second;
      }
    });
    threads.emplace_back([&, i] {
      for (; reads < kReads; ++reads) {
        std::this_thread::yield();  // readers without a pause starve writers
        std::optional<FastReadGuard> fast;
        std::optional<ReadGuard<BiasedRwLock>> slow;
        i == 0 ? (void)fast.emplace(lock) : (void)slow.emplace(lock);
        const long seen = first;
        std::this_thread::yield();
        torn += seen == second ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(torn == 0 && first == writes) << torn;
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

}  // namespace
}  // namespace METRICS

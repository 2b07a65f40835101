#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <thread>

namespace tidegate::agent {

// Makes the heap give memory back to the system after much of it has become free. By itself the
// heap gives back only the free memory at its end, which is next to nothing after a sweep of the
// table.
//
// It looks at the memory of the process without the bytes that are known to be in use, and compares
// it with the least that this has been. So it does not matter which part of the agent used the
// memory, or how exactly its use is known.
//
// Threads: Look from one. A trim takes some 100 ms for each 100 MB, so it has a thread of its own.
// Other threads wait for it only if they allocate from the part of the heap that is being trimmed.
class HeapTrimmer {
 public:
  using Clock = std::chrono::steady_clock;

  // Less is not worth the work.
  static constexpr size_t kLeastBytes = size_t{16} << 20;
  // Between two trims, and twice as long after each that gave little, as the heap may have no more.
  static constexpr std::chrono::seconds kPause{10};
  static constexpr std::chrono::seconds kLongestPause{600};

  // To be made before much is in use, and before there are threads: they share one arena from then
  // on.
  HeapTrimmer();
  ~HeapTrimmer() { Join(); }
  HeapTrimmer(const HeapTrimmer&) = delete;
  HeapTrimmer& operator=(const HeapTrimmer&) = delete;

  // To be called every second or so. `used` are the bytes that are known to be in use, roughly.
  // Throws std::system_error if there can be no thread.
  void Look(size_t used);

 private:
  void Join() {
    if (thread_.joinable()) thread_.join();
  }

  size_t least_;        // bytes beside those in use
  size_t at_trim_ = 0;  // the same, before the last trim
  std::chrono::seconds pause_ = kPause;
  Clock::time_point last_;
  std::atomic<bool> busy_{false};
  std::thread thread_;
};

}  // namespace tidegate::agent

#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace METRICS {

/// How many threads of this process are somewhere. A forked child starts at 0: it does not wait
/// for threads that do not exist. Not for the path of emissions, as it asks for the process.
class ProcessCount {
 public:
  /// Counts its thread for its life.
  class Stay {
   public:
    explicit Stay(ProcessCount& count) : count_(count) { count_.Change(1); }
    ~Stay() {
      if (::getpid() == process_) {
        count_.Change(-1);
      }
    }
    Stay(const Stay&) = delete;
    Stay& operator=(const Stay&) = delete;

   private:
    ProcessCount& count_;
    const pid_t process_ = ::getpid();
  };

  uint32_t Get() const { return In(word_.load()); }

 private:
  static constexpr int kProcessShift = 32;

  static uint64_t Word(uint32_t count) {
    return static_cast<uint64_t>(::getpid()) << kProcessShift | count;
  }
  static uint32_t In(uint64_t word) {
    const auto count = static_cast<uint32_t>(word);
    return word == Word(count) ? count : 0;
  }
  void Change(int by) {
    uint64_t before = word_.load();
    while (!word_.compare_exchange_weak(before, Word(In(before) + static_cast<uint32_t>(by)))) {
    }
  }

  std::atomic<uint64_t> word_{0};  ///< the process above its count
};

}  // namespace METRICS

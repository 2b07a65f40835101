#pragma once

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace tidegate::bench {

inline long ThreadId() { return ::syscall(SYS_gettid); }

// How long threads of this process were ready to run, and waited for a core, since they began.
class CoreWaits {
 public:
  explicit CoreWaits(const std::vector<long>& threads) {
    for (const long thread : threads) {
      const std::string path = "/proc/self/task/" + std::to_string(thread) + "/schedstat";
      files_.push_back(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
      if (files_.back() < 0) {
        std::perror(path.c_str());
        std::abort();
      }
    }
  }
  ~CoreWaits() {
    for (const int file : files_) {
      ::close(file);
    }
  }
  CoreWaits(const CoreWaits&) = delete;
  CoreWaits& operator=(const CoreWaits&) = delete;

  uint64_t Nanos() const {
    uint64_t sum = 0;
    for (const int file : files_) {
      std::array<char, 128> text{};
      if (::pread(file, text.data(), text.size() - 1, 0) > 0) {
        char* end = nullptr;
        std::strtoull(text.data(), &end, 10);  // the time on a core
        sum += std::strtoull(end, nullptr, 10);
      }
    }
    return sum;
  }

 private:
  std::vector<int> files_;
};

}  // namespace tidegate::bench

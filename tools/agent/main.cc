#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "agent/agent.h"
#include "agent/log.h"
#include "agent/options.h"
#include "agent/settings_check.h"
#include "agent/top.h"

namespace {

using tidegate::agent::Agent;
using tidegate::agent::LogLevel;
using tidegate::agent::Options;
using tidegate::agent::OptionsError;

// While this object lives, SIGHUP makes the agent read its settings again. The first SIGINT or
// SIGTERM ends the agent in order. A later one kills it at once, in case the orderly end is stuck
// in a write. One within kOnceMillis of the first changes nothing: some managers signal a process
// and then its whole group, and mean only one stop.
class ObeySignals {
 public:
  explicit ObeySignals(Agent* agent) {
    target_ = agent;
    Set(SIGHUP, [](int) { target_->Reload(); });
    Set(SIGINT, Stop);
    Set(SIGTERM, Stop);
  }
  ~ObeySignals() {
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) std::signal(number, SIG_IGN);
  }
  ObeySignals(const ObeySignals&) = delete;
  ObeySignals& operator=(const ObeySignals&) = delete;

 private:
  static constexpr int64_t kOnceMillis = 1000;

  static void Set(int number, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
  }

  static void Stop(int number) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t millis = int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
    int64_t first = 0;
    if (first_.compare_exchange_strong(first, millis)) {
      target_->Stop();
    } else if (millis - first > kOnceMillis) {
      _exit(128 + number);
    }
  }

  static inline Agent* target_ = nullptr;
  static inline std::atomic<int64_t> first_{0};  // when it came, by the monotonic clock
  static_assert(std::atomic<int64_t>::is_always_lock_free);
};

// Before there is a log, or where it has no memory.
void PrintError(const char* text) noexcept {
  try {
    std::fputs(tidegate::agent::LogLine(STDERR_FILENO, LogLevel::kError, text).c_str(), stderr);
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "tidegate-agent: %s\n", text);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error of the write
  std::signal(SIGHUP, SIG_IGN);   // the settings are read in a moment
  // Messages of hundreds of kilobytes come and go all the time. To get zeroed memory from the
  // kernel for each would cost more than to read it.
  mallopt(M_MMAP_THRESHOLD, 4 << 20);
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
  try {
    if (argc > 1 && std::string_view(argv[1]) == "top") {
      return tidegate::agent::RunTop(argc - 1, argv + 1);
    }
    OptionsError error;
    const std::optional<Options> options = tidegate::agent::ParseOptions(argc, argv, &error);
    if (!options) {
      if (error.exit_code != 0) PrintError(error.text.c_str());
      return error.exit_code;
    }
    if (options->check) return tidegate::agent::CheckSettings(*options);
    Agent agent(*options, [=](OptionsError* failure) {
      return tidegate::agent::ParseOptions(argc, argv, failure);
    });
    const ObeySignals obey(&agent);
    return agent.Run();
  } catch (const std::exception& failure) {
    PrintError(failure.what());
    return 1;
  }
}

#include <malloc.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "agent/agent.h"
#include "agent/options.h"

namespace {

using tidegate::agent::Agent;
using tidegate::agent::Options;
using tidegate::agent::OptionsError;

// Ends the agent in order at the first signal of a kind, as long as this object lives. A second one
// kills it, should a write be stuck even so.
class StopOnSignals {
 public:
  explicit StopOnSignals(Agent* agent) {
    target_ = agent;
    struct sigaction action = {};
    action.sa_handler = [](int) { target_->Stop(); };
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
  }
  ~StopOnSignals() {
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
  }
  StopOnSignals(const StopOnSignals&) = delete;
  StopOnSignals& operator=(const StopOnSignals&) = delete;

 private:
  static inline Agent* target_ = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  // Messages of hundreds of kilobytes come and go all the time: fetching their memory from the
  // kernel anew, zeroed, would cost more than reading them.
  mallopt(M_MMAP_THRESHOLD, 4 << 20);
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
  try {
    OptionsError error;
    const std::optional<Options> options = tidegate::agent::ParseOptions(argc, argv, &error);
    if (!options) {
      if (error.exit_code != 0) std::fprintf(stderr, "tidegate-agent: %s\n", error.text.c_str());
      return error.exit_code;
    }
    Agent agent(*options);
    const StopOnSignals stop(&agent);
    return agent.Run();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tidegate-agent: %s\n", failure.what());
    return 1;
  }
}

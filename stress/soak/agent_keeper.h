#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "soak/channel.h"
#include "soak/ledger.h"
#include "soak/world.h"
#include "testing/listening_agent.h"

namespace tidegate::stress {

// Keeps an agent for all worlds and gives it a hard life. For one thread.
class AgentKeeper {
 public:
  static constexpr int kFaultKinds = 4;

  // The sockets lie in `folder`. Each life of the agent has a path of its own, so that a packet
  // tells to which one it went; a sender that connects anew asks for the path.
  AgentKeeper(std::string folder, AgentPath& path, Ledger& ledger);

  // Faults, with pauses between them, until `end`. The agent serves when it returns.
  void Torment(std::chrono::steady_clock::time_point end, Random& random);
  // The agent reads what there is, and goes.
  void End() { End(true); }

  int64_t faults() const { return faults_; }

 private:
  void Start();
  void End(bool drained);
  void Fault(int kind, Random& random);
  void Pause(int low_ms, int high_ms, Random& random) const;

  const std::string folder_;
  AgentPath& path_;
  Ledger& ledger_;
  std::unique_ptr<test::ListeningAgent> agent_;
  std::chrono::steady_clock::time_point end_{};
  int lives_ = 0;
  int64_t faults_ = 0;
};

}  // namespace tidegate::stress

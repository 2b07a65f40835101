#pragma once

#include <sys/socket.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "agent/unique_fd.h"
#include "support/agent_socket.h"

// Agents that are none, or bad ones.

namespace tidegate::stress {

using agent::UniqueFd;

// A socket that is bound to `path`, and listens if `backlog` is not negative.
UniqueFd Bind(const std::string& path, int type, int backlog);

// Takes the places that a listener has for connections.
void FillBacklog(const std::string& path, std::vector<UniqueFd>& held);

// An agent that hangs up after each message, as one that crashes and is started again would. As it
// takes in what had been sent until then, nothing is lost, and nothing may come twice.
class HangingUpAgent {
 public:
  explicit HangingUpAgent(const std::string& path);
  HangingUpAgent(const HangingUpAgent&) = delete;
  HangingUpAgent& operator=(const HangingUpAgent&) = delete;
  ~HangingUpAgent() { Stop(); }

  // Takes in what was sent until then.
  void Stop();
  // REQUIRES: stopped.
  const test::AgentSocket::Packets& packets() const { return packets_; }
  int hang_ups() const { return hang_ups_.load(); }

 private:
  void Serve();
  void HangUp(int client);
  // Takes one message in; false at the end of the connection.
  bool Keep(int client);

  const UniqueFd listener_;
  test::AgentSocket::Packets packets_;
  std::atomic<int> hang_ups_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace tidegate::stress

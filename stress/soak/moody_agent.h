#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "agent/unique_fd.h"
#include "soak/ledger.h"

namespace tidegate::stress {

// One life of an agent, on a thread and a socket of its own: it hands each message to the ledger.
// It can stall, be killed as a process is, with its unread messages, or end in order. Its
// operations are for one thread.
class MoodyAgent {
 public:
  // Listens on `path`; throws std::system_error when it cannot.
  MoodyAgent(std::string path, Ledger& ledger);
  ~MoodyAgent() { Kill(); }
  MoodyAgent(const MoodyAgent&) = delete;
  MoodyAgent& operator=(const MoodyAgent&) = delete;

  // Neither reads nor accepts until `Resume`.
  void Stall() { Tell(Mood::kStalled); }
  void Resume() { Tell(Mood::kServing); }
  // Closes all that it has as it stands; its socket file stays.
  void Kill() { End(Mood::kKilled); }
  // Takes nothing more in, reads what there is, and goes.
  void Drain() { End(Mood::kDraining); }

 private:
  enum class Mood { kServing, kStalled, kKilled, kDraining };

  void Tell(Mood mood);
  void End(Mood mood);
  void Serve();
  void ServeOnce();
  void Accept();
  void ReadToTheEnd();
  // Takes one message in; false at the end of the connection.
  bool Receive(int client, int flags);

  const std::string path_;
  Ledger& ledger_;
  std::atomic<Mood> mood_{Mood::kServing};
  agent::UniqueFd wake_;  // an eventfd: look at `mood_`
  // Of the thread alone.
  agent::UniqueFd listener_;
  std::vector<agent::UniqueFd> clients_;
  std::vector<char> buffer_;

  std::thread thread_;
};

}  // namespace tidegate::stress

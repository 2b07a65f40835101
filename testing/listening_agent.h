#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agent/unique_fd.h"

namespace tidegate::test {

// An agent that hands each message of any number of services to a function, on a thread of its own.
// It can stall, be killed as a process is, with its unread messages, end in order and start again.
// Its operations are for one thread.
class ListeningAgent {
 public:
  // Called on the agent's thread. False hangs up on the sender, as an agent that crashes and is
  // started again would; messages that it had sent until then are handed over first.
  using Take = std::function<bool(const char* bytes, size_t size)>;

  // Listens on `path`; throws std::system_error when it cannot.
  ListeningAgent(std::string path, Take take);
  ~ListeningAgent() { Kill(); }
  ListeningAgent(const ListeningAgent&) = delete;
  ListeningAgent& operator=(const ListeningAgent&) = delete;

  // Neither reads nor accepts until `Resume`.
  void Stall() { Tell(Mood::kStalled); }
  void Resume() { Tell(Mood::kServing); }
  // Returns when all that was sent before the call has been handed over. From any thread. Returns
  // at once when it has ended. REQUIRES: it is not stalled.
  void CatchUp();
  // Closes all of its sockets at once. Its socket file stays, here and in `Drain`.
  void Kill() { End(Mood::kKilled); }
  // Refuses new messages, reads those that are there, and ends.
  void Drain() { End(Mood::kDraining); }
  // Listens again. REQUIRES: it has ended, and its socket file is gone.
  void Restart();

  bool running() const { return thread_.joinable(); }
  const std::string& path() const { return path_; }
  // How often it hung up. From any thread.
  int hang_ups() const { return hang_ups_.load(); }

 private:
  enum class Mood { kServing, kStalled, kKilled, kDraining };

  void Tell(Mood mood);
  void End(Mood mood);
  void Serve();
  void ServeOnce();
  void ForgetWake();  // before a look at `mood_` or `asked_`
  void ReadAll();
  void Answer(uint64_t asked);
  void Accept();
  // Reads the messages that are there. False when the connection is at its end.
  bool ReadSome(int client);
  // Shuts down before it reads: a message is then either among those that are read, or refused.
  void ReadToTheEnd(int client);
  // Hands one message over. False when there is none, with errno, 0 at the end of the connection.
  bool Receive(int client, int flags);

  static constexpr uint64_t kEnded = std::numeric_limits<uint64_t>::max();

  const std::string path_;
  const Take take_;
  std::atomic<Mood> mood_{Mood::kServing};
  std::atomic<int> hang_ups_{0};
  agent::UniqueFd wake_;            // an eventfd: look at `mood_` and `asked_`
  std::atomic<uint64_t> asked_{0};  // how often `CatchUp` was called
  std::mutex mutex_;
  std::condition_variable caught_up_;
  uint64_t answered_ = kEnded;  // which call of `CatchUp` may return; under `mutex_`
  // Of the thread alone while it runs.
  agent::UniqueFd listener_;
  std::vector<agent::UniqueFd> clients_;
  std::vector<char> buffer_;
  bool hang_up_ = false;  // what `take_` answered last

  std::thread thread_;
};

}  // namespace tidegate::test

#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "agent/bounded_queue.h"
#include "agent/health.h"
#include "agent/unique_fd.h"

namespace tidegate::agent {

// How a program of root, or of the agent's user, gets the status of an agent that runs. It connects
// to the socket of the services and sends one message. The agent answers with a text of JSON, which
// is cut into messages, and ends the connection.

// Whether `message`, which came from connection `fd`, is that question, of somebody who may ask.
bool AsksForStatus(int fd, std::string_view message);

// The agent's side. Owns the connections. A few askers wait for their turn; if there are more, the
// oldest one gets no answer. Neither does one that has not read its answer after two seconds.
//
// Threads: Start and Stop from one, Take from any; a thread of its own makes the text and sends it.
class StatusTeller {
 public:
  // `make` appends the text, on the thread of this object. Borrows `health`.
  StatusTeller(std::function<void(std::string*)> make, Health* health)
      : make_(std::move(make)), health_(health) {}
  ~StatusTeller() { Stop(); }
  StatusTeller(const StatusTeller&) = delete;
  StatusTeller& operator=(const StatusTeller&) = delete;

  // Starts the thread, once.
  void Start() { thread_ = std::thread(&StatusTeller::Run, this); }

  // Answers on `connection`, which asked. Does not wait.
  void Take(UniqueFd connection) noexcept;

  // Ends the thread, at once but for a text that is being made. Safe twice, and without Start.
  void Stop();

 private:
  static constexpr size_t kMostAskers = 8;
  static constexpr size_t kAskerBytes = 1024;

  void Run();
  void Send(int fd, std::string_view text) const;

  const std::function<void(std::string*)> make_;
  Health* const health_;
  BoundedQueue<UniqueFd> askers_{kMostAskers * kAskerBytes};
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

// The asking side: gets the text from the agent at `path`. Waits for some seconds at most. False,
// with one line in `error`, if there is no answer.
bool AskForStatus(const std::string& path, std::string* text, std::string* error);

}  // namespace tidegate::agent

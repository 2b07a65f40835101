#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/unique_fd.h"

namespace tidegate::agent {

// How an agent that starts takes the listening sockets over from one of the same user that runs, so
// that no client that connects meanwhile is refused. They talk on a connection to the socket
// itself, by one message each:
//
//   the new one asks     the old one offers, and passes the descriptors along
//   the new one takes    the old one gives: they are the new one's from here on
//
// Until it gives them, the old one goes on as if it had not been asked.

// The old one's side. Threads: one. Owns its descriptors.
class HandOverGiver {
 public:
  // The sockets that it gives to an agent that asks: they listen, and that of the services is the
  // first. None: it gives nothing, as at the beginning.
  void Offer(std::vector<UniqueFd> sockets) { sockets_ = std::move(sockets); }

  // Whether `message`, which came from connection number `number` with descriptor `fd`, is for it.
  // If so, it has answered, unless it gives nothing. Does not wait.
  bool Answer(int fd, uint64_t number, std::string_view message);

  // The process that took the sockets; 0 if none has. From any thread.
  pid_t given_to() const { return given_to_; }

 private:
  bool SendSockets(int fd) const;

  std::vector<UniqueFd> sockets_;
  uint64_t asked_by_ = 0;  // the number of a connection
  std::atomic<pid_t> given_to_{0};
};

// The new one's side. Threads: one. Owns its descriptors. Its calls wait, a few seconds at most.
class HandOverTaker {
 public:
  enum class Answer {
    kOffer,  // the sockets are here
    kEnd,    // the old one is just ending
    kNone,   // it hands nothing over, or it is no agent of this user
  };

  // Asks on a connection to the socket, which may be one that does not block.
  Answer Ask(UniqueFd connection);

  // The sockets that were offered; none if there was no such socket, or if it has been moved away.
  UniqueFd& services() { return services_; }
  UniqueFd& http() { return http_; }
  // By whom, by the word of the kernel; 0 if nothing was offered.
  pid_t from() const { return from_; }

  // Takes the sockets, after which the old agent uses them no more. False if it keeps them.
  bool Take();

 private:
  bool ReceiveOffer();

  UniqueFd connection_;
  UniqueFd services_;
  UniqueFd http_;
  pid_t from_ = 0;
};

}  // namespace tidegate::agent

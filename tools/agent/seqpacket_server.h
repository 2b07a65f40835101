#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "agent/connected_processes.h"
#include "agent/hand_over.h"
#include "agent/packet_listener.h"
#include "agent/packet_sink.h"
#include "agent/report.h"
#include "agent/unique_fd.h"

namespace tidegate::agent {

// Receives messages from any number of clients on a SOCK_SEQPACKET unix socket. It does not look
// into the messages.
//
// Threads: one thread makes all calls, and the handlers run on it; Stop may come from any thread
// and from a signal handler. Owns the connections, borrows the listener. A message above
// kMaxMessageSize is handed over cut; clients that find no free descriptor, of which some are left
// to the rest of the agent, wait in the listen queue.
class SeqpacketServer {
 public:
  static constexpr size_t kMaxMessageSize = 1 << 20;  // bytes

  struct Message {
    std::unique_ptr<char[]> data;  // null: there was no memory for it
    size_t size = 0;               // bytes at `data`
    size_t sent_size = 0;  // bytes that the client sent; more than `size` if the message was cut
    ClientId client;
  };
  using MessageHandler = std::function<void(Message)>;  // throws nothing

  // `on_warning` gets one line about trouble that does not end the server, and throws nothing.
  // Keeps the number of connected clients in `clients`, and their processes in `processes`; borrows
  // both. A process is there before its first message, and until after its last one.
  SeqpacketServer(MessageHandler on_message, Report on_warning, std::atomic<uint64_t>* clients,
                  ConnectedProcesses* processes);
  SeqpacketServer(const SeqpacketServer&) = delete;
  SeqpacketServer& operator=(const SeqpacketServer&) = delete;

  // Listens, once per object. Returns false and says why in `error`.
  bool Listen(PacketListener* listener, std::string* error);

  // From now on hands the listener over to another agent that asks for it, and `http` with it, a
  // socket that listens for HTTP, if there is one.
  void OfferSockets(UniqueFd http);

  // Gets the connection of each client that asks for the status of the agent, and throws nothing.
  // Before Run; without it, the connection is ended.
  void AnswerStatus(std::function<void(UniqueFd)> answer) { answer_status_ = std::move(answer); }

  // Serves until Stop, or until it has handed over. Returns false, with `error`, if it could not go
  // on. REQUIRES: Listen succeeded.
  bool Run(std::string* error);

  // After Run, goes on like it until `done`, which it asks some fifty times a second, or until it
  // has handed over.
  void RunUntil(const std::function<bool()>& done);

  // The process that it has handed over to, or 0.
  pid_t handed_to() const { return giver_.given_to(); }

  // After Run, ends the listener, unless it is someone else's, and all connections. No client can
  // send any more; messages that were sent by then are still handed to the handler.
  void Close();

  // Ends Run, also one that starts later. Does not wait. Safe twice, and in a signal handler.
  void Stop();

 private:
  enum class ReadResult { kMore, kIdle, kGone, kAsksForStatus };

  struct Client {
    UniqueFd socket;
    ClientId id;
    ConnectedProcesses::Connection connection;
  };

  // Waits for something to do, and does it. Returns false, with errno, if it cannot.
  bool RunOnce(int timeout_millis);
  bool Watch(int fd, bool ready_to_read);
  void AcceptPending();
  // Reads the connection from now on. False, with errno, if it cannot.
  bool Serve(UniqueFd client);
  void PauseAccepting(bool pause);
  void Warn(const char* trouble) noexcept;
  // Once it is ready.
  void Read(int fd);
  ReadResult ReadSome(const Client& client);
  // Reads what the clients had sent, and lets them go.
  void Drain();

  const MessageHandler on_message_;
  const Report on_warning_;
  UniqueFd epoll_;
  UniqueFd stop_event_;
  const uint64_t most_clients_;
  ConnectedProcesses* const processes_;
  PacketListener* listener_ = nullptr;
  HandOverGiver giver_;
  std::function<void(UniqueFd)> answer_status_ = [](UniqueFd /*connection*/) {};
  std::unordered_map<int, Client> clients_;
  uint64_t connections_ = 0;  // so far
  std::atomic<uint64_t>* const client_count_;
  bool accept_paused_ = false;  // the listener is not watched, it would be ready all the time
  bool stopped_ = false;
};

}  // namespace tidegate::agent

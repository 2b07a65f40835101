#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agent/packet_reader.h"
#include "agent/unique_fd.h"

namespace tidegate::test {

using agent::Tag;

struct ReceivedPacket {
  std::string bytes;
  agent::Packet packet;
};

// One series record with what its block and packet say about it.
struct Point {
  std::string tenant;
  std::string name;
  uint8_t type = 0;  // wire type
  int64_t timestamp = 0;
  std::vector<Tag> tags;
  std::vector<std::string> fields;  // of the block, whether or not the record carries them
  std::vector<uint32_t> indexes;
  std::vector<double> values;
};

// The agent's end for tests: a SOCK_SEQPACKET listener with a thread that keeps every message it
// gets, raw and decoded by the agent's own reader. All operations from any thread.
class AgentSocket {
 public:
  using Packets = std::vector<ReceivedPacket>;

  static constexpr std::chrono::milliseconds kPatience{20000};

  // Listens on `path`; throws std::system_error when it cannot.
  explicit AgentSocket(std::string path);
  ~AgentSocket() { Stop(); }
  AgentSocket(const AgentSocket&) = delete;
  AgentSocket& operator=(const AgentSocket&) = delete;

  // False when the packets did not come in time.
  bool WaitForPackets(size_t count, std::chrono::milliseconds timeout = kPatience);
  // `done` is asked after each message.
  bool WaitUntil(const std::function<bool(const Packets&)>& done,
                 std::chrono::milliseconds timeout = kPatience);

  // Goes away, after taking in all that clients had sent by then. Clients that send later fail.
  void Stop();
  // Listens again on the same path; what was received before is kept. REQUIRES: stopped.
  void Restart();

  Packets Received() const;
  // What came since the last call, which is then forgotten.
  Packets Take();
  // The points of all packets in the order they came.
  std::vector<Point> Points() const;
  // Why messages were not decoded.
  std::vector<std::string> Errors() const;
  const std::string& path() const { return path_; }

 private:
  void Listen();
  void Serve();
  void Accept();
  void Drain();
  // Takes one message in; false at the end of the connection.
  bool Receive(int client, int flags);
  void Keep(std::string bytes);

  const std::string path_;
  // Of the serving thread alone.
  agent::UniqueFd listener_;
  std::vector<agent::UniqueFd> clients_;
  std::vector<char> buffer_;

  agent::UniqueFd stop_;  // an eventfd: the thread is to end
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  Packets packets_;  // this and the one below: guarded by mutex_
  std::vector<std::string> errors_;
  std::thread thread_;
};

std::vector<Point> PointsOf(const AgentSocket::Packets& packets);

}  // namespace tidegate::test

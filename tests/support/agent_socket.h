#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "agent/packet_reader.h"
#include "testing/listening_agent.h"
#include "util/metric_lock.h"

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

// The agent's end for tests: keeps every message it gets, raw and decoded by the agent's own
// reader. All operations from any thread, but for `Stop` and `Restart`, which are for one.
class AgentSocket {
 public:
  using Packets = std::vector<ReceivedPacket>;

  static constexpr std::chrono::milliseconds kPatience{20000};

  // Listens on `path`; throws std::system_error when it cannot. With `hangs_up` it hangs up on the
  // sender of each message: as it takes in what had been sent until then, nothing is lost, and
  // nothing may come twice.
  explicit AgentSocket(std::string path, bool hangs_up = false);
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
  void Restart() { agent_.Restart(); }

  Packets Received() const;
  // What came since the last call, which is then forgotten.
  Packets Take();
  // The points of all packets in the order they came.
  std::vector<Point> Points() const;
  // Why messages were not decoded.
  std::vector<std::string> Errors() const;
  const std::string& path() const { return agent_.path(); }
  int hang_ups() const { return agent_.hang_ups(); }

 private:
  void Keep(std::string bytes);

  mutable METRICS::Mutex mutex_;
  std::condition_variable_any arrived_;
  Packets packets_ METRICS_GUARDED_BY(mutex_);
  std::vector<std::string> errors_ METRICS_GUARDED_BY(mutex_);
  ListeningAgent agent_;  // ends first
};

std::vector<Point> PointsOf(const AgentSocket::Packets& packets);

}  // namespace tidegate::test

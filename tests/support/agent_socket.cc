#include "support/agent_socket.h"

#include <unistd.h>

#include <utility>

namespace tidegate::test {
namespace {

using Guard = METRICS::WriteGuard<METRICS::Mutex>;

// The mutex of a guard, for a condition variable that waits within it.
struct Guarded {
  void lock() METRICS_NO_THREAD_SAFETY { mutex.Lock(); }
  void unlock() METRICS_NO_THREAD_SAFETY { mutex.Unlock(); }
  METRICS::Mutex& mutex;
};

}  // namespace

AgentSocket::AgentSocket(std::string path, bool hangs_up)
    : agent_(std::move(path), [this, hangs_up](const char* bytes, size_t size) {
        Keep(std::string(bytes, size));
        return !hangs_up;
      }) {}

void AgentSocket::Stop() {
  if (!agent_.running()) return;
  agent_.Drain();
  ::unlink(path().c_str());
}

void AgentSocket::Keep(std::string bytes) {
  agent::Packet packet;
  agent::ReadError error;
  const bool read = agent::ReadPacket(bytes.data(), bytes.size(), &packet, &error);
  {
    const Guard guard(mutex_);
    if (read) {
      packets_.push_back({std::move(bytes), std::move(packet)});
    } else {
      errors_.push_back(std::to_string(bytes.size()) + " bytes, offset " +
                        std::to_string(error.offset) + ": " + error.reason);
    }
  }
  arrived_.notify_all();
}

bool AgentSocket::WaitForPackets(size_t count, std::chrono::milliseconds timeout) {
  return WaitUntil([count](const Packets& packets) { return packets.size() >= count; }, timeout);
}

bool AgentSocket::WaitUntil(const std::function<bool(const Packets&)>& done,
                            std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  const Guard guard(mutex_);
  Guarded guarded{mutex_};
  while (!done(packets_)) {
    if (arrived_.wait_until(guarded, end) == std::cv_status::timeout) return done(packets_);
  }
  return true;
}

AgentSocket::Packets AgentSocket::Received() const {
  const Guard guard(mutex_);
  return packets_;
}

AgentSocket::Packets AgentSocket::Take() {
  const Guard guard(mutex_);
  return std::exchange(packets_, {});
}

std::vector<std::string> AgentSocket::Errors() const {
  const Guard guard(mutex_);
  return errors_;
}

std::vector<Point> AgentSocket::Points() const { return PointsOf(Received()); }

std::vector<Point> PointsOf(const AgentSocket::Packets& packets) {
  std::vector<Point> points;
  for (const ReceivedPacket& received : packets) {
    for (const agent::Block& block : received.packet.blocks) {
      std::vector<std::string> fields;
      for (const agent::Field& field : block.fields) fields.push_back(field.name);
      for (const agent::Series& series : block.series) {
        points.push_back({received.packet.tenant, block.name, block.wire_type, block.timestamp,
                          series.tags, fields, series.indexes, series.values});
      }
    }
  }
  return points;
}

}  // namespace tidegate::test

#include "agent/packet_log.h"

#include <exception>
#include <utility>

#include "agent/point_printer.h"

namespace tidegate::agent {
namespace {

constexpr size_t kMaxBytes = 16 << 20;

// A small packet can hold one long name and many records that repeat it in print, so lines are
// handed on before a whole packet's are together.
constexpr size_t kWriteSize = 1 << 16;

// More takes a packet that is made to be expensive.
constexpr size_t kMaxPacketBytes = size_t{256} << 20;

}  // namespace

PacketLog::PacketLog(PrintFormat format, bool label_pid, int fd, std::function<void(int)> on_error,
                     Health* health)
    : format_(format),
      label_pid_(label_pid),
      health_(health),
      writer_(fd, kMaxBytes, std::move(on_error)) {}

void PacketLog::Handle(const Packet& packet, const ClientId& client) {
  left_ = packet.series_count;
  try {
    Print(packet, client);
  } catch (const std::exception&) {
    health_->unprinted_points += left_;
    points_ = 0;
    buffer_ = std::string();
    throw;
  }
}

void PacketLog::Print(const Packet& packet, const ClientId& client) {
  const Tag tag = {"pid", std::to_string(client.pid)};
  const Tag* const pid = label_pid_ ? &tag : nullptr;
  flushed_ = 0;
  for (size_t i = 0; i < packet.blocks.size() && writer_.error() == 0;) {
    const size_t timer = format_ == PrintFormat::kText ? TimerBlocks(packet, i) : 0;
    if (timer != 0) {
      AppendTimerText(packet, i, pid, &buffer_);
      EndPoints(timer);
      i += timer;
      continue;
    }
    Append(packet, packet.blocks[i++], pid);
  }
  Flush();
}

void PacketLog::Finish(std::chrono::milliseconds timeout) {
  health_->unprinted_points += writer_.Finish(timeout);
}

void PacketLog::Append(const Packet& packet, const Block& block, const Tag* pid) {
  for (const Series& record : block.series) {
    if (flushed_ > kMaxPacketBytes) {
      ++health_->unprinted_points;
      --left_;
      continue;
    }
    if (format_ == PrintFormat::kText) {
      AppendText(packet, block, record, pid, &buffer_);
    } else {
      AppendJson(packet, block, record, pid, &buffer_);
    }
    EndPoints(1);
  }
}

void PacketLog::EndPoints(size_t count) {
  points_ += count;
  if (buffer_.size() >= kWriteSize) Flush();
}

void PacketLog::Flush() {
  if (buffer_.empty()) return;
  flushed_ += buffer_.size();
  const uint64_t points = std::exchange(points_, 0);
  health_->unprinted_points += writer_.Write(std::exchange(buffer_, {}), points);
  left_ -= points;
}

}  // namespace tidegate::agent

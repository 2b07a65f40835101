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

PacketLog::PacketLog(PrintFormat format, ProcessLabel label, int fd,
                     std::function<void(int)> on_change, Health* health)
    : format_(format),
      label_(label),
      health_(health),
      writer_(fd, kMaxBytes, std::move(on_change), &health->unprinted_points) {}

void PacketLog::Handle(const Packet& packet, const ClientId& client) {
  left_ = packet.series_count;
  if (StreamWriter::IsFinal(writer_.error())) {
    health_->unprinted_points += left_;
    return;
  }
  try {
    Print(packet, client);
  } catch (const std::exception&) {
    health_->unprinted_points += left_;
    lines_ = CountedLines();
    throw;
  }
}

void PacketLog::Print(const Packet& packet, const ClientId& client) {
  const Tag tag = {std::string(KeyOf(label_)), ValueOf(label_, client)};
  const Tag* const process = label_ == ProcessLabel::kNone ? nullptr : &tag;
  flushed_ = 0;
  for (size_t i = 0; i < packet.blocks.size();) {
    const size_t timer = format_ == PrintFormat::kText ? TimerBlocks(packet, i) : 0;
    if (timer != 0) {
      AppendTimerText(packet, i, process, &lines_.text);
      EndLine(static_cast<uint8_t>(timer));
      i += timer;
      continue;
    }
    Append(packet, packet.blocks[i++], process);
  }
  Flush();
}

void PacketLog::Append(const Packet& packet, const Block& block, const Tag* process) {
  for (const Series& record : block.series) {
    if (flushed_ > kMaxPacketBytes) {
      ++health_->unprinted_points;
      --left_;
      continue;
    }
    if (format_ == PrintFormat::kText) {
      AppendText(packet, block, record, process, &lines_.text);
    } else {
      AppendJson(packet, block, record, process, &lines_.text);
    }
    EndLine(1);
  }
}

void PacketLog::EndLine(uint8_t points) {
  lines_.counts.push_back(points);
  if (lines_.text.size() >= kWriteSize) Flush();
}

void PacketLog::Flush() {
  if (lines_.text.empty()) return;
  flushed_ += lines_.text.size();
  const uint64_t points = lines_.Count();
  writer_.Write(std::exchange(lines_, {}));
  left_ -= points;
}

}  // namespace tidegate::agent

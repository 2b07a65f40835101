#include "agent/packet_log.h"

#include <cerrno>
#include <functional>

#include "agent/point_printer.h"

namespace tidegate::agent {
namespace {

// A small packet can hold one long name and many records that repeat it in print, so lines are
// written out before a whole packet's are together.
constexpr size_t kWriteSize = 1 << 16;

// A hash stands for the series: at a million of them, the chance that one goes uncounted is below
// one in ten million.
uint64_t SeriesId(const Block& block, const Series& record) {
  std::string key;
  const auto append = [&key](const std::string& text) {
    key += std::to_string(text.size());
    key += ':';
    key += text;
  };
  append(block.name);
  for (const Tag& tag : record.tags) {
    append(tag.key);
    append(tag.value);
  }
  return std::hash<std::string>{}(key);
}

}  // namespace

bool PacketLog::Handle(const SeqpacketServer::Message& message) {
  if (message.sent_size > message.size) {
    Refuse("message of " + std::to_string(message.sent_size) + " bytes is longer than " +
           std::to_string(message.size));
    return write_error_ == 0;
  }
  Packet packet;
  ReadError error;
  if (!ReadPacket(message.data, message.size, &packet, &error)) {
    Refuse("malformed packet of " + std::to_string(message.size) + " bytes at offset " +
           std::to_string(error.offset) + ": " + error.reason);
    return write_error_ == 0;
  }
  ++totals_.packets;
  for (const Block& block : packet.blocks) {
    for (const Series& record : block.series) {
      ++totals_.points;
      seen_series_.insert(SeriesId(block, record));
    }
  }
  Print(packet);
  totals_.series = seen_series_.size();
  Flush();
  return write_error_ == 0;
}

void PacketLog::Report(const std::string& text) {
  std::fprintf(errors_, "tidegate-agent: %s\n", text.c_str());
}

void PacketLog::Refuse(const std::string& text) {
  ++totals_.errors;
  Report(text);
}

void PacketLog::Print(const Packet& packet) {
  for (size_t i = 0; i < packet.blocks.size();) {
    const size_t timer = format_ == OutputFormat::kText ? TimerBlocks(packet, i) : 0;
    if (timer != 0) {
      AppendTimerText(packet, i, &buffer_);
      i += timer;
      continue;
    }
    for (const Series& record : packet.blocks[i].series) {
      PrintPoint(packet, packet.blocks[i], record);
    }
    ++i;
  }
}

void PacketLog::PrintPoint(const Packet& packet, const Block& block, const Series& record) {
  if (write_error_ != 0) return;
  switch (format_) {
    case OutputFormat::kText:
      AppendText(packet, block, record, &buffer_);
      break;
    case OutputFormat::kJson:
      AppendJson(packet, block, record, &buffer_);
      break;
    case OutputFormat::kNone:
      break;
  }
  if (buffer_.size() >= kWriteSize) Write();
}

void PacketLog::Write() {
  if (std::fwrite(buffer_.data(), 1, buffer_.size(), points_) != buffer_.size()) {
    write_error_ = errno;
  }
  buffer_.clear();
}

void PacketLog::Flush() {
  Write();
  if (write_error_ == 0 && std::fflush(points_) != 0) write_error_ = errno;
}

}  // namespace tidegate::agent

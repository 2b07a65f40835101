#include "agent/decoder.h"

#include <utility>

#include "agent/survives.h"

namespace tidegate::agent {

using std::chrono::steady_clock;

Decoder::Decoder(PacketQueue* queue, std::vector<PacketSink*> sinks,
                 std::function<void()> on_second, Health* health, Log* log, ProcessSlots* slots,
                 RuleStage* rules, std::vector<PacketSink*> watchers)
    : queue_(queue),
      sinks_(std::move(sinks)),
      on_second_(std::move(on_second)),
      health_(health),
      log_(log),
      slots_(slots),
      rules_(rules),
      watchers_(std::move(watchers)) {}

void Decoder::Run() {
  constexpr std::chrono::milliseconds kSecond(1000);
  steady_clock::time_point last = steady_clock::now();
  SeqpacketServer::Message message;
  for (;;) {
    const PacketQueue::Result result = queue_->Pop(&message, kSecond);
    if (result == PacketQueue::Result::kClosed) return;
    if (result == PacketQueue::Result::kItem) {
      Decode(message);
    } else {
      reader_ = PacketReader();  // gives back what it keeps
    }
    if (const steady_clock::time_point now = steady_clock::now(); now - last >= kSecond) {
      last = now;
      Survives(health_, on_second_);
    }
  }
}

void Decoder::Decode(const SeqpacketServer::Message& message) {
  Packet* packet = nullptr;
  if (!Survives(health_, [&] { packet = Read(message); })) {
    ++health_->dropped_memory;
    reader_ = PacketReader();  // gives back what it keeps
  }
  if (packet == nullptr) return;
  ++health_->packets;
  health_->points += packet->series_count;
  const ClientId client = Slotted(*packet, message.client);
  HandOn(watchers_, *packet, client);
  if (rules_ != nullptr && rules_->IsOn()) return HandOnByRules(packet, client);
  HandOn(sinks_, *packet, client);
}

void Decoder::HandOn(const std::vector<PacketSink*>& sinks, const Packet& packet,
                     const ClientId& client) {
  for (PacketSink* sink : sinks) {
    Survives(health_, [&] { sink->Handle(packet, client); });
  }
}

// A packet to which the rules could not be applied must not be handed on without them.
void Decoder::HandOnByRules(Packet* packet, const ClientId& client) {
  bool rest = false;
  if (!Survives(health_, [&] { rest = rules_->Apply(packet); })) {
    ++health_->dropped_memory;
    reader_ = PacketReader();  // gives back what it keeps
    return;
  }
  if (rest) HandOn(sinks_, *packet, client);
  Survives(health_, [&] { rules_->HandOn(packet, client); });
}

ClientId Decoder::Slotted(const Packet& packet, ClientId client) {
  if (slots_ != nullptr) Survives(health_, [&] { client.slot = slots_->SlotOf(packet, client); });
  return client;
}

Packet* Decoder::Read(const SeqpacketServer::Message& message) {
  const size_t size = message.size;
  if (message.sent_size > size) {
    Refuse(DecodeFailure::kTooLong, "message of " + std::to_string(message.sent_size) +
                                        " bytes is longer than " + std::to_string(size));
    return nullptr;
  }
  ReadError error;
  Packet* const packet = reader_.Read(message.data.get(), size, &error);
  if (packet == nullptr) {
    Refuse(FailureOf(error), "malformed packet of " + std::to_string(size) + " bytes at offset " +
                                 std::to_string(error.offset) + ": " + error.reason);
  }
  return packet;
}

void Decoder::Refuse(DecodeFailure failure, const std::string& text) {
  ++health_->refused[static_cast<size_t>(failure)];
  log_->ReportSome(text);
}

}  // namespace tidegate::agent

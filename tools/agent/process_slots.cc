#include "agent/process_slots.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

namespace tidegate::agent {
namespace {

using std::chrono::seconds;

constexpr uint32_t kBits = 64;
constexpr uint64_t kAllTaken = ~uint64_t{0};

// Further times are not taken for those of a flush.
constexpr int64_t kLastTime = int64_t{1} << 40;

uint64_t IdentityOf(const Packet& packet) {
  const std::hash<std::string_view> hash;
  uint64_t identity = hash(packet.tenant);
  for (const Tag& tag : packet.tenant_tags) {
    identity = (identity * 31 + hash(tag.key)) * 31 + hash(tag.value);
  }
  return identity;
}

}  // namespace

ProcessSlots::ProcessSlots(IsLive is_live, Health* health)
    : is_live_(std::move(is_live)), health_(health) {}

// All blocks of a packet are of one flush, or all are its earlier points.
void ProcessSlots::Slot::See(int64_t timestamp, int64_t sent) {
  if (timestamp < 0 || timestamp > kLastTime) return;
  if (sent > 0 && timestamp > sent) {
    ahead = std::max(ahead, std::min(timestamp - sent, kMaxInterval));
  }
  if (newest >= 0 && timestamp > newest) step = std::min(step, timestamp - newest);
  if (newest >= 0 && timestamp < newest) {
    back = std::max(back, std::min(newest - timestamp, kMaxInterval));
  }
  newest = timestamp;
}

bool ProcessSlots::Process::IsHeld(TimePoint now) const {
  int64_t interval = 1;
  for (const auto& [identity, slot] : slots) {
    interval = std::max({interval, slot.step, slot.back, slot.ahead});
  }
  return now - *gone < seconds(2 * interval) + kHoldSlack;
}

uint32_t ProcessSlots::Numbers::TakeLowest() {
  const auto room =
      std::find_if(taken.begin(), taken.end(), [](uint64_t word) { return word != kAllTaken; });
  auto number = static_cast<uint32_t>(room - taken.begin()) * kBits;
  while (!Take(number)) ++number;
  return number;
}

bool ProcessSlots::Numbers::Take(uint32_t number) {
  const uint32_t word = number / kBits;
  const uint64_t bit = uint64_t{1} << number % kBits;
  if (taken.size() <= word) taken.resize(word + 1);
  if ((taken[word] & bit) != 0) return false;
  taken[word] |= bit;
  ++count;
  return true;
}

void ProcessSlots::Numbers::Free(uint32_t number) {
  taken[number / kBits] &= ~(uint64_t{1} << number % kBits);
  --count;
}

uint32_t ProcessSlots::SlotOf(const Packet& packet, const ClientId& client) {
  const uint64_t identity = IdentityOf(packet);
  const ProcessId id = client.process();
  const auto process = processes_.find(id);
  Slot* slot = nullptr;
  if (process != processes_.end()) {
    process->second.gone.reset();
    const auto found = process->second.slots.find(identity);
    if (found != process->second.slots.end()) slot = &found->second;
  }
  if (slot == nullptr && HasRoom(id)) slot = Add(id, identity);
  if (slot == nullptr) {
    ++health_->slotless_packets;
    return kNoSlot;
  }
  if (!packet.blocks.empty()) {
    slot->See(packet.blocks.front().timestamp, packet.send_time_ms / 1000);
  }
  return slot->number;
}

ProcessSlots::Slot* ProcessSlots::Add(const ProcessId& process, uint64_t identity) {
  Process& owner = processes_[process];
  Numbers& numbers = numbers_[identity];
  const uint32_t number = numbers.TakeLowest();
  try {
    Slot& slot = owner.slots[identity];
    slot.number = number;
    health_->slots = ++slots_;
    ++changes_;
    return &slot;
  } catch (...) {
    numbers.Free(number);
    throw;
  }
}

void ProcessSlots::Sweep(TimePoint now) {
  for (auto next = processes_.begin(); next != processes_.end();) {
    Process& process = next->second;
    if (is_live_(next->first)) {
      process.gone.reset();
    } else if (!process.gone) {
      process.gone = now;
    } else if (!process.IsHeld(now)) {
      FreeAll(process);
      next = processes_.erase(next);
      continue;
    }
    ++next;
  }
  health_->slots = slots_;
}

void ProcessSlots::FreeAll(const Process& process) {
  for (const auto& [identity, slot] : process.slots) {
    const auto numbers = numbers_.find(identity);
    numbers->second.Free(slot.number);
    if (numbers->second.count == 0) numbers_.erase(numbers);
    --slots_;
    ++changes_;
  }
}

bool ProcessSlots::HasRoom(const ProcessId& process) const {
  const auto found = processes_.find(process);
  return slots_ < kMaxSlots &&
         (found == processes_.end() || found->second.slots.size() < kMaxSlotsOfProcess);
}

void ProcessSlots::Restore(const std::vector<Taken>& slots) {
  for (const Taken& saved : slots) {
    if (saved.number >= kMaxSlots || saved.process.pid <= 0 || !HasRoom(saved.process)) continue;
    auto& of_process = processes_[saved.process].slots;
    if (of_process.count(saved.identity) != 0 || !numbers_[saved.identity].Take(saved.number)) {
      continue;
    }
    of_process[saved.identity].number = saved.number;
    ++slots_;
  }
  health_->slots = slots_;
}

std::vector<ProcessSlots::Taken> ProcessSlots::Slots() const {
  std::vector<Taken> slots;
  for (const auto& [process, entry] : processes_) {
    if (process.pid <= 0) continue;
    for (const auto& [identity, slot] : entry.slots) {
      slots.push_back({process, identity, slot.number});
    }
  }
  return slots;
}

}  // namespace tidegate::agent

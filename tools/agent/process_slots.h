#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "agent/health.h"
#include "agent/packet_sink.h"

namespace tidegate::agent {

// Gives every process a small number that no other live one has, among those whose packets name the
// same tenant, account and project: the lowest that is free. A process keeps its number over all of
// its connections. Once it has gone, the number is held for two of its flush intervals and
// kHoldSlack, and then free. Its last points can be one interval in the future, and the first ones
// of a successor begin one interval in the past, so the two do not meet.
//
// Not thread-safe: for the decoder's thread. Bounded: beyond kMaxSlots, and kMaxSlotsOfProcess for
// one process under several names, there is none, which is counted. Throws std::bad_alloc, and is
// as it was then. Borrows `health`.
class ProcessSlots {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  static constexpr size_t kMaxSlots = 65536;  // some 20 MB
  static constexpr size_t kMaxSlotsOfProcess = 1024;
  static constexpr std::chrono::seconds kHoldSlack{5};
  // The longest interval that a registry can have. Also that of a process of which nothing is
  // known.
  static constexpr int64_t kMaxInterval = 60;

  // A number that a process has under an identity.
  struct Taken {
    ProcessId process;
    uint64_t identity = 0;
    uint32_t number = 0;
  };

  ProcessSlots(IsLive is_live, Health* health);

  // Numbers that an earlier agent has given: held until the processes come, or as long as those of
  // one of which nothing is known. Entries that make no sense are left out. Before all other calls.
  void Restore(const std::vector<Taken>& slots);

  // All that is worth restoring: a process that the kernel does not name would not be found again.
  std::vector<Taken> Slots() const;

  // Grows with each change of those.
  uint64_t changes() const { return changes_; }

  // The number of the process that has sent the packet, or kNoSlot.
  uint32_t SlotOf(const Packet& packet, const ClientId& client);

  // Frees what is no longer held. To be called every second or so.
  void Sweep(TimePoint now);

 private:
  // One process under one identity.
  struct Slot {
    uint32_t number = 0;
    int64_t newest = -1;  // timestamp of the last packet
    // Seconds from one flush to the next, from a flush back to its earlier points, and from the
    // clock to the last points, which are in the future. A process may have registries of several
    // intervals.
    int64_t step = kMaxInterval;
    int64_t back = 0;
    int64_t ahead = 0;

    void See(int64_t timestamp, int64_t sent);
  };
  struct Process {
    std::unordered_map<uint64_t, Slot> slots;  // by identity
    std::optional<TimePoint> gone;             // since when

    bool IsHeld(TimePoint now) const;
  };
  // The numbers of one identity, a bit for each: to free one takes no memory.
  struct Numbers {
    std::vector<uint64_t> taken;
    size_t count = 0;

    uint32_t TakeLowest();
    bool Take(uint32_t number);  // false if it is taken
    void Free(uint32_t number);
  };

  Slot* Add(const ProcessId& process, uint64_t identity);
  bool HasRoom(const ProcessId& process) const;
  void FreeAll(const Process& process);

  const IsLive is_live_;
  Health* const health_;
  std::unordered_map<ProcessId, Process> processes_;
  // By identity, of which a hash is enough: two with the same one share their numbers, no more.
  std::unordered_map<uint64_t, Numbers> numbers_;
  size_t slots_ = 0;  // of all processes
  uint64_t changes_ = 0;
};

}  // namespace tidegate::agent

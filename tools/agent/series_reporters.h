#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "agent/packet_sink.h"

namespace tidegate::agent {

// A process that reports a series, as small as a series can keep it.
struct Reporter {
  explicit Reporter(const ClientId& client)
      : hash(static_cast<uint32_t>(std::hash<ProcessId>{}(client.process()) >> 32 | 1)),
        pid(client.pid) {}

  uint32_t hash;  // never 0; two processes that share one are taken for one
  pid_t pid;
};

// Which processes report one series: sees that two do at one time.
//
// A process that takes over from one that has gone does not share the series with it, also if a
// last packet of that one comes late. Nor does a process that takes over for a while from one that
// lives.
class SeriesReporters {
 public:
  // Notes that one of them has reported it. True once, when it is clear that it shares the series.
  bool See(const Reporter& reporter) {
    if (reporter.hash == owner_ && away_ == 0) return false;
    return SeeChange(reporter);
  }

  // Of the other one. REQUIRES: See was true.
  pid_t other() const { return other_; }

 private:
  // Times that the owner came back after another.
  static constexpr uint8_t kSharedReturns = 2;
  // Records without one of the owner between them, after which it has gone. In a flush a series has
  // one record or two, and where two processes share it one can be the last in one flush and
  // the first in the next.
  static constexpr uint8_t kTakeOver = 4;

  bool SeeChange(const Reporter& reporter) {
    if (reporter.hash == owner_) {
      away_ = 0;
      if (returns_ == kSharedReturns) return false;
      return ++returns_ == kSharedReturns;
    }
    other_ = reporter.pid;
    if (owner_ != 0 && ++away_ < kTakeOver) return false;
    owner_ = reporter.hash;
    away_ = 0;
    if (returns_ < kSharedReturns) returns_ = 0;
    return false;
  }

  uint32_t owner_ = 0;  // hash
  pid_t other_ = 0;
  uint8_t away_ = 0;     // records since the owner's last
  uint8_t returns_ = 0;  // of the owner; once they are enough they stay
};

}  // namespace tidegate::agent

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "agent/recent_arrivals.h"

namespace tidegate::agent {

// Stands for an agent and one of its destinations: the same after a restart, and some other number
// for others.
uint64_t SpreadHash(std::string_view host, std::string_view destination);

// The first time after `now` that comes the part of `hash` after a multiple of `interval` since the
// epoch. Services flush at such multiples.
std::chrono::system_clock::time_point NextSendTime(std::chrono::system_clock::time_point now,
                                                   std::chrono::milliseconds interval,
                                                   uint64_t hash);

struct SendRules {
  // The SpreadHash by which points are sent once in each interval of the services; without it they
  // are sent when they come.
  std::optional<uint64_t> spread;
  // How many times as fast as points come in those that have waited for a destination are sent; 0:
  // as fast as it takes them.
  double catch_up = 0;
};

// When the points that wait for a destination may be sent. All hosts flush at the same instants, so
// each agent has a time of its own after that, and all agents see the same outages, so none sends
// what has waited at its full speed.
//
// Not thread-safe. `now` is that of the call.
class SendTimes {
 public:
  using Clock = std::chrono::steady_clock;
  using WallTime = std::chrono::system_clock::time_point;

  // Points are sent no more often than once in `least_interval`, if they are spread.
  SendTimes(const SendRules& rules, std::chrono::milliseconds least_interval)
      : rules_(rules), least_interval_(least_interval), is_open_(!rules.spread) {}

  // Points came, to wait.
  void Came(WallTime now, uint64_t points);

  // Nothing more waits that is ready to be sent.
  void Emptied(Clock::time_point now, WallTime wall);

  // Sending failed, and it is too early to send before `retry_at`.
  void Failed(Clock::time_point retry_at);

  // Points of an outage were found.
  void CatchUp() { catching_up_ = true; }

  // The destination has dealt with `points`.
  void Sent(Clock::time_point now, WallTime wall, uint64_t points);

  // It is time to send, and no more too early.
  void SendNow(Clock::time_point now);

  // True if the time of the spread has come since the last call.
  bool Opens(Clock::time_point now);

  // Between the time of the spread and Emptied, and always without a spread.
  bool is_open() const { return is_open_; }
  // When that time comes. REQUIRES: not is_open().
  Clock::time_point opens_at() const { return opens_at_; }
  // It is too early to send before this.
  Clock::time_point send_at() const { return send_at_; }

 private:
  const SendRules rules_;
  const std::chrono::milliseconds least_interval_;
  RecentArrivals arrivals_;
  bool is_open_;
  bool catching_up_ = false;  // what waited during an outage is not all sent
  Clock::time_point opens_at_;
  Clock::time_point send_at_;
};

}  // namespace tidegate::agent

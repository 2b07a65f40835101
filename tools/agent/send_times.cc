#include "agent/send_times.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;

// For what an earlier agent left where no service sends any more.
constexpr double kLeastPointsPerSecond = 20;
constexpr double kLongestPause = 60;  // seconds; services may start to send meanwhile

int64_t SecondsOf(SendTimes::WallTime time) {
  return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

}  // namespace

uint64_t SpreadHash(std::string_view host, std::string_view destination) {
  const std::hash<std::string_view> hash;
  // The odd number mixes what would cancel out where both are one text.
  return hash(host) * 0x9e3779b97f4a7c15U ^ hash(destination);
}

std::chrono::system_clock::time_point NextSendTime(std::chrono::system_clock::time_point now,
                                                   std::chrono::milliseconds interval,
                                                   uint64_t hash) {
  const milliseconds time = std::chrono::floor<milliseconds>(now.time_since_epoch());
  const auto part = static_cast<double>(hash >> 32U) / 4294967296.0;
  const milliseconds offset(static_cast<int64_t>(part * static_cast<double>(interval.count())));
  milliseconds next = time - time % interval + offset;
  if (next <= time) next += interval;
  return std::chrono::system_clock::time_point(next);
}

void SendTimes::Came(WallTime now, uint64_t points) { arrivals_.Add(SecondsOf(now), points); }

void SendTimes::Emptied(Clock::time_point now, WallTime wall) {
  if (std::exchange(catching_up_, false)) send_at_ = now;
  if (!rules_.spread) return;
  is_open_ = false;
  const milliseconds interval =
      std::max<milliseconds>(arrivals_.Interval(SecondsOf(wall)), least_interval_);
  opens_at_ = now + (NextSendTime(wall, interval, *rules_.spread) - wall);
}

void SendTimes::Failed(Clock::time_point retry_at) {
  catching_up_ = true;
  send_at_ = retry_at;
}

void SendTimes::Sent(Clock::time_point now, WallTime wall, uint64_t points) {
  if (!catching_up_ || rules_.catch_up <= 0) return;
  const double rate =
      std::max(rules_.catch_up * arrivals_.PointsPerSecond(SecondsOf(wall)), kLeastPointsPerSecond);
  const double pause = std::min(static_cast<double>(points) / rate, kLongestPause);
  send_at_ = now + milliseconds(static_cast<int64_t>(pause * 1000));
}

void SendTimes::SendNow(Clock::time_point now) {
  is_open_ = true;
  send_at_ = now;
}

bool SendTimes::Opens(Clock::time_point now) {
  if (is_open_ || now < opens_at_) return false;
  return is_open_ = true;
}

}  // namespace tidegate::agent

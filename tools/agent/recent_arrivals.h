#pragma once

#include <array>
#include <chrono>
#include <cstdint>

namespace tidegate::agent {

// Counts the points of the last minute by the second in which they came: how fast they come, and at
// which interval. Not thread-safe. `second` is that of the clock, since the epoch. It starts anew
// after two minutes without points, and after a step of the clock back.
class RecentArrivals {
 public:
  // Before a minute has been seen: that of services which do not choose one.
  static constexpr std::chrono::seconds kUsualInterval{10};

  void Add(int64_t second, uint64_t points);

  // The shortest interval of services, up to a minute, that can be spread over: no interval of the
  // last minute had more than one and a half times its share of the points. A few points that come
  // more seldom than the others do not make it longer.
  std::chrono::seconds Interval(int64_t second);

  // On average.
  double PointsPerSecond(int64_t second);

 private:
  static constexpr int64_t kSeconds = 60;

  void MoveTo(int64_t second);
  bool IsEvenAt(int64_t interval) const;

  std::array<uint64_t, kSeconds> points_ = {};  // by the second of the minute
  uint64_t sum_ = 0;                            // of those
  int64_t since_ = 0;                           // second of the first points,
  int64_t last_points_ = 0;                     // of the last ones,
  int64_t newest_ = 0;                          // and the last one that was seen
};

}  // namespace tidegate::agent

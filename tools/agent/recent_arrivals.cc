#include "agent/recent_arrivals.h"

#include <algorithm>
#include <numeric>

namespace tidegate::agent {
namespace {

// Those that services may have; each divides the minute.
constexpr std::array<int64_t, 6> kIntervals = {1, 5, 10, 15, 30, 60};

// Of the points of an interval to the mean of all.
constexpr double kMostUneven = 1.5;

constexpr int64_t kLongestSilence = 120;

// The points of one flush are not taken for a rate by the second.
constexpr int64_t kLeastSeconds = 10;

}  // namespace

void RecentArrivals::MoveTo(int64_t second) {
  if (second < newest_) since_ = second;
  if (second < newest_ || second - newest_ >= kSeconds) {
    points_ = {};
    sum_ = 0;
    newest_ = second;
  }
  while (newest_ < second) {
    uint64_t& points = points_[static_cast<size_t>(++newest_ % kSeconds)];
    sum_ -= points;
    points = 0;
  }
}

void RecentArrivals::Add(int64_t second, uint64_t points) {
  second = std::max<int64_t>(second, 0);
  MoveTo(second);
  if (points == 0) return;
  if (second - last_points_ >= kLongestSilence) since_ = second;
  last_points_ = second;
  points_[static_cast<size_t>(second % kSeconds)] += points;
  sum_ += points;
}

std::chrono::seconds RecentArrivals::Interval(int64_t second) {
  MoveTo(std::max<int64_t>(second, 0));
  if (sum_ == 0 || newest_ - since_ < kSeconds) return kUsualInterval;
  const auto* const found = std::find_if(kIntervals.begin(), kIntervals.end(),
                                         [this](int64_t interval) { return IsEvenAt(interval); });
  return std::chrono::seconds(*found);
}

bool RecentArrivals::IsEvenAt(int64_t interval) const {
  uint64_t most = 0;
  for (int64_t start = 0; start < kSeconds; start += interval) {
    const auto* const first = points_.data() + start;
    most = std::max(most, std::accumulate(first, first + interval, uint64_t{0}));
  }
  const double mean = static_cast<double>(sum_ * static_cast<uint64_t>(interval)) / kSeconds;
  return static_cast<double>(most) <= kMostUneven * mean;
}

double RecentArrivals::PointsPerSecond(int64_t second) {
  MoveTo(std::max<int64_t>(second, 0));
  const int64_t seen = std::clamp(newest_ - since_ + 1, kLeastSeconds, kSeconds);
  return static_cast<double>(sum_) / static_cast<double>(seen);
}

}  // namespace tidegate::agent

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

// What all benchmarks emit, the same for the library and its peer: names, tags, samples. Nothing of
// the library is needed here.

namespace tidegate::bench {

// Series of the benchmarks of one emission, visited round robin, by each thread in the same order.
constexpr size_t kSeries = 100;

// In the order of the alphabet.
inline std::vector<std::string> TagNames(size_t count) {
  static const std::vector<std::string> names{"endpoint", "instance", "operation", "region",
                                              "service",  "status",   "tenant",    "zone"};
  return {names.begin(), names.begin() + static_cast<std::ptrdiff_t>(count)};
}

// The numbers of the values of series number `series`. With three tags or more a registry of
// 100,000 series is one of 10 endpoints, 100 instances and 100 operations.
inline std::vector<size_t> ValueNumbers(size_t series, size_t count) {
  if (count == 1) {
    return {series};
  }
  std::vector<size_t> numbers{series % 10, series / 10 % 100, series / 1000, series % 4,
                              series % 20, series % 5,        series % 50,   series % 3};
  numbers.resize(count);
  return numbers;
}

// How long a value of a tag is.
enum class Length : uint8_t { kTen, k20To60 };

// Value number `number` of the tag with index `tag`.
inline std::string TagValue(size_t tag, size_t number, Length length = Length::kTen) {
  static const char* const begins[] = {"ep-", "host-", "op-", "rg-", "sv-", "st-", "tn-", "zn-"};
  const std::string begin = begins[tag];
  size_t bytes = 10;
  if (length == Length::k20To60) {
    constexpr size_t kShortest = 20;
    constexpr size_t kLengths = 41;
    bytes = kShortest + (tag * 1000003 + number) * 2654435761 / 65536 % kLengths;
  }
  const std::string digits = std::to_string(number);
  // As in a path, what differs is at the end.
  static const std::string filling =
      "orders-of-customers/by-account-and-by-day/with-all-of-their-items/";
  const size_t filled = bytes - begin.size() - digits.size();
  return begin + (length == Length::kTen ? std::string(filled, '0') : filling.substr(0, filled)) +
         digits;
}

inline std::vector<std::string> TagValues(size_t series, size_t count,
                                          Length length = Length::kTen) {
  const std::vector<size_t> numbers = ValueNumbers(series, count);
  std::vector<std::string> values;
  values.reserve(count);
  for (size_t tag = 0; tag < count; ++tag) {
    values.push_back(TagValue(tag, numbers[tag], length));
  }
  return values;
}

// `make(series)` for each of `count` series.
template <class Make>
auto ForEachSeries(Make make, size_t count = kSeries) {
  std::vector<decltype(make(size_t{0}))> all;
  all.reserve(count);
  for (size_t series = 0; series < count; ++series) {
    all.push_back(make(series));
  }
  return all;
}

// `count` values from 0 up to 1e6, the same in every run.
inline std::vector<double> Samples(size_t count) {
  std::vector<double> samples(count);
  uint64_t state = 20260101;
  for (double& sample : samples) {
    state = state * 6364136223846793005 + 1442695040888963407;
    sample = static_cast<double>(state >> 40) * 1e6 / (1 << 24);
  }
  return samples;
}

// Bounds that share those samples out evenly.
inline std::vector<double> Bounds(size_t count) {
  std::vector<double> bounds(count);
  for (size_t i = 0; i < count; ++i) {
    bounds[i] = 1e6 / static_cast<double>(count) * static_cast<double>(i);
  }
  return bounds;
}

// Goes round 0 .. size - 1.
class RoundRobin {
 public:
  explicit RoundRobin(size_t size) : size_(size) {}
  size_t Next() {
    const size_t at = next_;
    next_ = next_ + 1 == size_ ? 0 : next_ + 1;
    return at;
  }

 private:
  const size_t size_;
  size_t next_ = 0;
};

// The numbers below `count` in an order that has none, the same in every run.
inline std::vector<uint32_t> Shuffled(size_t count) {
  std::vector<uint32_t> numbers(count);
  std::iota(numbers.begin(), numbers.end(), 0U);
  std::shuffle(numbers.begin(), numbers.end(), std::mt19937(20260101));
  return numbers;
}

// `World(setting)`, kept until another setting is asked for: a benchmark is called several times
// before it is timed.
template <class World, class Setting>
World& KeptWorld(const Setting& setting) {
  static std::pair<Setting, std::unique_ptr<World>>& kept =
      *new std::pair<Setting, std::unique_ptr<World>>();
  if (!kept.second || !(kept.first == setting)) {
    kept.second.reset();
    kept.second = std::make_unique<World>(setting);
    kept.first = setting;
  }
  return *kept.second;
}

}  // namespace tidegate::bench

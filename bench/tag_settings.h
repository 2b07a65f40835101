#pragma once

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>
#include <vector>

#include "workload.h"

// How benchmarks of tags differ from each other, for the library and its peer.

namespace tidegate::bench {

struct TagSetting {
  Length length = Length::kTen;
  size_t tags = 0;
  size_t series = 0;

  friend bool operator==(const TagSetting& a, const TagSetting& b) {
    return a.length == b.length && a.tags == b.tags && a.series == b.series;
  }
};

// By its arguments: the mean number of bytes of a value, tags, series.
inline TagSetting SettingOf(const benchmark::State& state) {
  return {state.range(0) == 10 ? Length::kTen : Length::k20To60,
          static_cast<size_t>(state.range(1)), static_cast<size_t>(state.range(2))};
}

constexpr int64_t kWarm = kSeries;

inline void TagSettings(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"bytes", "tags", "series"})
      ->ArgsProduct({{10}, {1, 3, 8}, {kWarm}})
      ->ArgsProduct({{40}, {1, 3, 8}, {kWarm, 10000, 100000}});
}

inline void AnewSettings(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"bytes", "tags", "series"})->ArgsProduct({{40}, {1, 3, 8}, {kWarm}});
}

// What a handler knows of a request: text in a buffer that it was received in, and numbers.
struct Request {
  std::string_view endpoint, instance;
  long operation = 0;
  std::string_view region, service;
  long status = 0;
  std::string_view tenant, zone;
};

// One request for each series, in a shuffled order.
class Requests {
 public:
  explicit Requests(const TagSetting& setting) {
    buffers_.reserve(setting.series);
    for (const uint32_t series : Shuffled(setting.series)) {
      Add(ValueNumbers(series, setting.tags == 1 ? 1 : 8), setting.length);
    }
  }

  const Request& operator[](size_t i) const { return requests_[i]; }

 private:
  void Add(const std::vector<size_t>& numbers, Length length) {
    std::vector<std::string> texts;
    std::string& buffer = buffers_.emplace_back();
    for (size_t tag = 0; tag < numbers.size(); ++tag) {
      texts.push_back(TagValue(tag, numbers[tag], length));
      buffer += texts.back();
    }
    const char* at = buffer.data();
    const auto next = [&](size_t tag) {
      const size_t size = tag < texts.size() ? texts[tag].size() : 0;
      at += size;
      return std::string_view(at - size, size);
    };
    Request request;
    request.endpoint = next(0);
    request.instance = next(1);
    next(2);
    request.region = next(3);
    request.service = next(4);
    next(5);
    request.tenant = next(6);
    request.zone = next(7);
    if (numbers.size() > 1) {
      request.operation = static_cast<long>(numbers[2]);
      request.status = 200 + static_cast<long>(numbers[5]);
    }
    requests_.push_back(request);
  }

  std::vector<std::string> buffers_;
  std::vector<Request> requests_;
};

}  // namespace tidegate::bench

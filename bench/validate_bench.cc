// What does it cost to check the characters of a string, by its length and by the two forms of the
// check, beside reading the bytes once?

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "util/metric_string_util.h"

namespace tidegate::bench {
namespace {

// All characters are legal, so every check runs to the end.
std::string LegalValue(size_t length) {
  std::string text;
  while (text.size() < length) {
    text += "GET-/orders.v2_";
  }
  text.resize(length);
  return text;
}

template <class Check>
void CheckLegal(benchmark::State& state, Check check) {
  const std::string text = LegalValue(static_cast<size_t>(state.range(0)));
  if (!check(text)) {
    state.SkipWithError("refused");
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(text.data());
    benchmark::DoNotOptimize(check(text));
  }
}

void Lengths(benchmark::internal::Benchmark* bench) {
  for (const int64_t length : {1, 8, 12, 15, 16, 31, 64, 254, 255, 1024, 4095}) {
    bench->Arg(length);
  }
}

void Bitmap(benchmark::State& state) {
  CheckLegal(state, [](const std::string& text) { return METRICS::IsValidValue(text); });
}
BENCHMARK(Bitmap)->Apply(Lengths);

void Table(benchmark::State& state) {
  CheckLegal(state, [](const std::string& text) {
    return METRICS::IsValidStrTable(text, METRICS::g_t_validVal);
  });
}
BENCHMARK(Table)->Arg(1)->Arg(8)->Arg(12)->Arg(15)->Arg(16)->Arg(31)->Arg(64)->Arg(254);

void SumOfBytes(benchmark::State& state) {
  CheckLegal(state, [](const std::string& text) {
    unsigned sum = 0;
    for (const char c : text) {
      sum += static_cast<unsigned char>(c);
    }
    return sum != 0;
  });
}
BENCHMARK(SumOfBytes)->Apply(Lengths);

}  // namespace
}  // namespace tidegate::bench

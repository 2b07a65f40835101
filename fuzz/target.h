#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace tidegate::fuzz {

// One piece of code that takes hostile bytes. Each has a source of its own and enters itself in the
// list by a static object, before main. `run` is called any number of times, by one thread at a
// time.
struct Target {
  const char* name;  // also that of its folder below fuzz/corpus
  // Feeds one input and checks its result. Whether the input was accepted.
  bool (*run)(const uint8_t* data, size_t size);
};

inline std::vector<Target>& Targets() {
  static std::vector<Target> targets;
  return targets;
}

struct Registration {
  Registration(const char* name, bool (*run)(const uint8_t*, size_t)) {
    Targets().push_back({name, run});
  }
};

// Ends the process, which is how a fuzzer learns of a finding.
inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "violated: %s\n", what);
  std::abort();
}

}  // namespace tidegate::fuzz

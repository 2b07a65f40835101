#pragma once

#include <chrono>
#include <cstdint>

namespace tidegate::test {

// The clock of the process while an object of this class lives: it stands still, and moves when it
// is told to. All objects are one clock; the last one gives the system's back. Any thread. In a
// forked child the system's clock is back at once, and none of these may be used there.
class TestClock {
 public:
  TestClock();
  ~TestClock();
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;

  // Moves to the next full minute, or beyond it if an interval asks for that, with one flush of
  // each sender. Throws std::system_error when a thread of the library does not come to rest.
  static void Flush();
  // Moves by `time`, with a flush at each boundary of each sender. Throws as `Flush`, and
  // std::invalid_argument.
  static void Advance(std::chrono::seconds time);
  // Since the epoch.
  static int64_t Micros();
};

}  // namespace tidegate::test

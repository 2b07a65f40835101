#pragma once

#include <string>
#include <vector>

namespace tidegate::stress {

// A situation that gets a process of its own, because of what it does to one: limits, clocks, the
// way it ends. `run` lasts about `seconds` where it repeats anything, and checks with the EXPECT
// macros of GoogleTest; returning with none failed, and from `main`, is its success.
struct Case {
  const char* name;
  void (*run)(int seconds);
};

// The body of a program that consists of cases: runs the one that `--case` names, in this process,
// or all of them, some at a time, and says what became of them. Answers the exit code.
int RunCases(const std::string& program, const std::string& about, int seconds,
             const std::vector<Case>& cases, int argc, char** argv);

// The descriptors of this process.
long DescriptorCount();

}  // namespace tidegate::stress

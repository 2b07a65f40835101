#pragma once

#include <string>
#include <vector>

namespace tidegate::stress {

// A situation that needs a process of its own, as it changes limits or clocks, or how the process
// ends. `run` lasts about `seconds` if it repeats anything, and checks with the EXPECT macros of
// GoogleTest. It succeeds if it returns with none failed, and `main` returns.
struct Case {
  const char* name;
  void (*run)(int seconds);
};

// The body of a program that consists of cases. Runs the one that `--case` names, in this process,
// or all of them, some at a time, and prints their results. Returns the exit code.
int RunCases(const std::string& program, const std::string& about, int seconds,
             const std::vector<Case>& cases, int argc, char** argv);

// The descriptors of this process.
long DescriptorCount();

}  // namespace tidegate::stress

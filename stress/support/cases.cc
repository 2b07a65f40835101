#include "support/cases.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <thread>

#include "support/command_line.h"
#include "support/report.h"

namespace tidegate::stress {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t kAtATime = 5;  // they sleep most of the time
// On top of the time that a case repeats: wide enough for a sanitizer on a busy machine.
constexpr std::chrono::seconds kPatience{60};

struct Process {
  std::string name;
  pid_t pid;
  steady_clock::time_point deadline;
};

pid_t Spawn(const std::string& name, int seconds) {
  std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  std::string words[] = {self, "--case", name, "--seconds", std::to_string(seconds)};
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  pid_t pid = -1;
  return ::posix_spawn(&pid, self.c_str(), nullptr, nullptr, arguments.data(), ::environ) == 0 ? pid
                                                                                               : -1;
}

// Whether the process has ended, with the fault in how it ended.
bool HasEnded(const Process& process, Report& report) {
  int status = 0;
  const pid_t ended = ::waitpid(process.pid, &status, WNOHANG);
  if (ended == 0) {
    if (steady_clock::now() < process.deadline) {
      return false;
    }
    ::kill(process.pid, SIGKILL);
    ::waitpid(process.pid, &status, 0);
    report.Violation("case " + process.name + " hung and was killed");
  } else if (ended < 0) {
    report.Violation("case " + process.name + " cannot be waited for: " + std::strerror(errno));
  } else if (WIFSIGNALED(status)) {
    report.Violation("case " + process.name + " died: " + ::strsignal(WTERMSIG(status)));
  } else {
    report.Check(WEXITSTATUS(status) == 0,
                 "case " + process.name + " exited with " + std::to_string(WEXITSTATUS(status)));
  }
  return true;
}

int RunAll(const std::string& program, const std::vector<Case>& cases, int seconds) {
  Report report(program);
  const auto start = steady_clock::now();
  std::vector<Process> running;
  size_t next = 0;
  while (next < cases.size() || !running.empty()) {
    while (next < cases.size() && running.size() < kAtATime) {
      const std::string name = cases[next++].name;
      const pid_t pid = Spawn(name, seconds);
      if (report.Check(pid > 0, "case " + name + " did not start")) {
        running.push_back(
            {name, pid, steady_clock::now() + std::chrono::seconds(seconds) + kPatience});
      }
    }
    running.erase(std::remove_if(running.begin(), running.end(),
                                 [&](const Process& process) { return HasEnded(process, report); }),
                  running.end());
    std::this_thread::sleep_for(milliseconds(10));  // between two looks at the processes
  }
  report.Figure("cases", static_cast<int64_t>(cases.size()));
  report.Figure("milliseconds",
                std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count());
  return report.Finish();
}

}  // namespace

int RunCases(const std::string& program, const std::string& about, int seconds,
             const std::vector<Case>& cases, int argc, char** argv) {
  CommandLine line(program, about, seconds);
  std::string only;
  line.Add("--case", only, "Run this case alone, in this process");
  if (const auto code = line.Parse(argc, argv)) {
    return *code;
  }
  // Where it is inherited as ignored, nobody can tell how a child ended.
  std::signal(SIGCHLD, SIG_DFL);
  if (only.empty()) {
    return RunAll(program, cases, line.seconds());
  }
  const auto found = std::find_if(cases.begin(), cases.end(),
                                  [&](const Case& known) { return only == known.name; });
  if (found == cases.end()) {
    std::fprintf(stderr, "%s: there is no case \"%s\"\n", program.c_str(), only.c_str());
    return 2;
  }
  found->run(line.seconds());
  Report report(program + "." + only);
  report.Check(!testing::UnitTest::GetInstance()->Failed(), "see the failures above");
  return report.Finish();
}

long DescriptorCount() {
  using std::filesystem::directory_iterator;
  // Without the one that is open to count them.
  return std::distance(directory_iterator("/proc/self/fd"), directory_iterator()) - 1;
}

}  // namespace tidegate::stress

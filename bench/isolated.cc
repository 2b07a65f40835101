#include "isolated.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

namespace tidegate::bench {
namespace {

std::string ReadAll(int fd) {
  std::string text;
  std::array<char, 4096> buffer{};
  ssize_t length = 0;
  while ((length = ::read(fd, buffer.data(), buffer.size())) > 0) {
    text.append(buffer.data(), static_cast<size_t>(length));
  }
  return text;
}

std::string AsText(const Figures& figures) {
  std::ostringstream text;
  text.precision(std::numeric_limits<double>::max_digits10);
  for (const auto& [name, value] : figures) {
    text << name << ' ' << value << '\n';
  }
  return text.str();
}

[[noreturn]] void RunChild(const std::function<Figures()>& scenario, int fd) {
  const std::string text = AsText(scenario());
  const bool told = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::_exit(told ? EXIT_SUCCESS : EXIT_FAILURE);
}

double StatusBytes(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word) {
    double kilobytes = 0;
    if (word == field && status >> kilobytes) {
      return kilobytes * 1024;
    }
  }
  std::fprintf(stderr, "no %s in /proc/self/status\n", field.c_str());
  std::abort();
}

}  // namespace

void Isolated(benchmark::State& state, const std::function<Figures()>& scenario) {
  for (auto _ : state) {
    int ends[2];
    const pid_t child = ::pipe(ends) == 0 ? ::fork() : -1;
    if (child == 0) {
      ::close(ends[0]);
      RunChild(scenario, ends[1]);
    }
    if (child < 0) {
      state.SkipWithError("no child process to be had");
      return;
    }
    ::close(ends[1]);
    std::istringstream text(ReadAll(ends[0]));
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (status != 0) {
      state.SkipWithError("the scenario failed");
    }
    std::string name;
    double value = 0;
    while (text >> name >> value) {
      state.counters[name] = value;
    }
  }
}

double ResidentBytes() { return StatusBytes("VmRSS:"); }

double PeakBytes() { return StatusBytes("VmHWM:"); }

void ResetPeak() {
  std::ofstream refs("/proc/self/clear_refs");
  refs << 5 << std::flush;
  if (!refs) {
    std::perror("/proc/self/clear_refs");
    std::abort();
  }
}

}  // namespace tidegate::bench

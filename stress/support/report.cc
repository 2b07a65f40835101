#include "support/report.h"

#include <cstdio>

namespace tidegate::stress {
namespace {

constexpr uint64_t kMaxLines = 20;

}  // namespace

void Report::Violation(const std::string& what) {
  if (violations_.fetch_add(1) < kMaxLines) {
    std::fprintf(stderr, "%s: VIOLATION: %s\n", program_.c_str(), what.c_str());
  }
}

bool Report::Check(bool holds, const std::string& what) {
  if (!holds) {
    Violation(what);
  }
  return holds;
}

void Report::Figure(const std::string& name, int64_t value) {
  const METRICS::WriteGuard guard(mutex_);
  figures_.emplace_back(name, value);
}

int Report::Finish() {
  Figure("violations", static_cast<int64_t>(violations()));
  const METRICS::WriteGuard guard(mutex_);
  std::string line = program_ + ":";
  for (const auto& [name, value] : figures_) {
    line += " " + name + "=" + std::to_string(value);
  }
  const bool clean = violations() == 0;
  std::printf("%s verdict=%s\n", line.c_str(), clean ? "ok" : "FAILED");
  std::fflush(stdout);
  return clean ? 0 : 1;
}

}  // namespace tidegate::stress

#include "support/command_line.h"

#include <CLI/CLI.hpp>
#include <chrono>

namespace tidegate::stress {
namespace {

uint64_t SeedFromClock() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace

CommandLine::CommandLine(const std::string& program, const std::string& about, int seconds)
    : app_(std::make_unique<CLI::App>(about, program)), seconds_(seconds), seed_(SeedFromClock()) {
  Add("--seconds", seconds_, "How long to run");
}

CommandLine::~CommandLine() = default;

void CommandLine::Add(const std::string& flag, int& value, const std::string& help) {
  app_->add_option(flag, value, help)->check(CLI::NonNegativeNumber)->capture_default_str();
}

void CommandLine::Add(const std::string& flag, std::string& value, const std::string& help) {
  app_->add_option(flag, value, help);
}

void CommandLine::AddSeed() {
  app_->add_option("--seed", seed_, "Seed of all random choices; by default the time");
}

std::optional<int> CommandLine::Parse(int argc, char** argv) {
  try {
    app_->parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return app_->exit(end);
  }
  return std::nullopt;
}

}  // namespace tidegate::stress

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace tidegate::stress {

// The flags of a stress program: `--seconds`, which all have, and its own.
class CommandLine {
 public:
  // `seconds` is how long the short form runs; `about` is one sentence.
  CommandLine(const std::string& program, const std::string& about, int seconds);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // A further number, 0 or more; `value` holds its default, and outlives this object.
  void Add(const std::string& flag, int& value, const std::string& help);
  // A further text.
  void Add(const std::string& flag, std::string& value, const std::string& help);
  // `--seed`, for programs that choose at random.
  void AddSeed();
  // An exit code if the program is to end at once, because of `--help` or a wrong flag.
  std::optional<int> Parse(int argc, char** argv);

  int seconds() const { return seconds_; }
  // From the clock, unless it was given: each run is another one.
  uint64_t seed() const { return seed_; }

 private:
  const std::unique_ptr<CLI::App> app_;
  int seconds_;
  uint64_t seed_;
};

}  // namespace tidegate::stress

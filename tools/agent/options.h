#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/forward_options.h"
#include "agent/merge_rules.h"
#include "agent/packet_log.h"
#include "agent/point_mapping.h"
#include "agent/rule.h"
#include "agent/settings_sections.h"

namespace tidegate::agent {

// Settings, from flags and from a file with the same names.
struct Options {
  // All of them by name, as they were given or are by default.
  std::map<std::string, std::string> texts;
  std::vector<SettingsSection> sections;  // of the file, in its order
  std::vector<Rule> rules;                // those of them that are rules
  bool check = false;                     // only say what an agent with these settings would find
  std::string socket = "/opt/tmp/sock/metric_seqpacket.sock";
  mode_t socket_mode = 0666;
  bool take_over = false;
  std::optional<PrintFormat> print;
  ProcessLabel process_label = ProcessLabel::kSlot;
  std::string http;  // "host:port"; empty: none
  bool timestamps = false;
  std::vector<ForwardOptions> destinations;
  bool merge = false;
  GaugeMerge merge_gauge = GaugeMerge::kSum;
  std::chrono::seconds merge_delay{5};
  std::chrono::seconds history{0};
  size_t history_bytes = 64 << 20;
  std::chrono::seconds ttl{300};
  std::chrono::seconds max_ahead{3600};
  size_t max_series = 1000000;
  size_t queue_bytes = 64 << 20;
  std::chrono::seconds drain{5};
};

// The text and the exit code, if the agent is not to run.
struct OptionsError {
  int exit_code = 0;
  std::string text;  // for standard error if the code is not 0, one line without its end
};

// Nothing, with `error`, if the flags or the file make no sense or if --help or --version is given.
std::optional<Options> ParseOptions(int argc, const char* const* argv, OptionsError* error);

}  // namespace tidegate::agent

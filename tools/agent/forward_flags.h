#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "agent/forward_options.h"
#include "agent/settings_sections.h"

namespace CLI {
class App;
}

namespace tidegate::agent {

// The settings of a destination that do not depend on its kind. Times are seconds.
struct DestinationSettings {
  CredentialSettings credentials;
  uint64_t batch_points = BatchLimits().batch_points;
  double interval = 1;
  uint64_t queue_points = BatchLimits().queue_points;
  size_t queue_bytes = BatchLimits().queue_bytes;
  double timeout = 10;
  bool spread = true;
  bool no_spread = false;
  double catch_up = 2;  // times the rate of points that come in; 0: no bound
  std::string spool;    // empty: there is none
  uint64_t spool_bytes = SpoolOptions().bytes;
  std::vector<std::string> resource;  // of OTLP

  // Makes `app` fill this object, and refuse what cannot be meant. `prefix` comes before names
  // that would be too short for flags.
  void DeclareOn(CLI::App* app, const std::string& prefix);

  // Throws CredentialError. REQUIRES: `url` is one that CheckUrl takes.
  ForwardOptions ToOptions(const std::string& name, DestinationKind kind,
                           const std::string& url) const;
};

// The flags of forwarding, from the command line and the file.
struct ForwardFlags {
  std::map<DestinationKind, std::vector<std::string>> urls;
  DestinationSettings settings;  // of all of them

  // Makes `app` fill this object, and refuse what cannot be meant.
  void DeclareOn(CLI::App* app);

  // A destination for each URL. Throws CLI::ValidationError.
  std::vector<ForwardOptions> ToOptions() const;
};

// The destination that a section describes. Throws SettingsError.
ForwardOptions DestinationOf(const SettingsSection& section);

// Throws SettingsError unless all have names and spools of their own. `sections` are those of the
// last of them.
void CheckTogether(const std::vector<ForwardOptions>& destinations,
                   const std::vector<SettingsSection>& sections);

}  // namespace tidegate::agent

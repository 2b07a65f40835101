#include "agent/forward_flags.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <filesystem>
#include <utility>

#include "agent/point_mapping.h"

namespace tidegate::agent {
namespace {

// Beyond that a number is a mistake.
constexpr double kLongestTime = 3600;
constexpr double kMostCatchUp = 1000000;
constexpr uint64_t kMostPoints = 1000000000;
constexpr uint64_t kMostBytes = uint64_t{1} << 40;
constexpr uint64_t kFewestBytes = 65536;

constexpr size_t kMostDestinations = 8;  // each may take the memory of its queue

std::chrono::milliseconds ToMilliseconds(double seconds) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(seconds));
}

std::string TooMany() {
  return "there are more than " + std::to_string(kMostDestinations) + " destinations";
}

std::string HostName() {
  char name[256] = {};
  if (gethostname(name, sizeof(name) - 1) != 0) return "unknown";
  return name;
}

std::string CheckUrl(const std::string& text, DestinationKind kind) {
  ForwardUrl url;
  std::string error;
  return ParseForwardUrl(text, &url, &error, kind)
             ? ""
             : "\"" + WithoutSecrets(text) + "\" is no URL to forward to: " + error;
}

// CLI::Range lets it through, as a NaN is neither below nor above anything.
std::string CheckNoNan(const std::string& text) {
  double number = 0;
  const bool is_nan = CLI::detail::lexical_cast(text, number) && std::isnan(number);
  return is_nan ? "\"" + text + "\" is no number" : "";
}

// At the rate at which points come in, or more slowly, none would ever catch up.
std::string CheckCatchUp(const std::string& text) {
  double times = 0;
  if (!CLI::detail::lexical_cast(text, times)) return "";
  return times > 0 && times < 1.1 ? "\"" + text + "\" is too low, give 1.1 or more, or 0" : "";
}

// The same with and without a slash at the end.
std::filesystem::path Normal(const std::string& folder) {
  return (std::filesystem::path(folder) / "").lexically_normal();
}

// REQUIRES: one that CheckResource takes.
std::pair<std::string, std::string> SplitAttribute(const std::string& text) {
  const size_t equals = text.find('=');
  return {text.substr(0, equals), text.substr(equals + 1)};
}

std::string CheckResource(const std::string& text) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) return "\"" + text + "\" is not KEY=VALUE";
  const std::string key = text.substr(0, equals);
  return IsOwnerKey(key) ? "\"" + key + "\" is what the points themselves say" : "";
}

void AddSeconds(CLI::App* app, const std::string& name, double least, double* seconds,
                const char* help) {
  app->add_option(name, *seconds, help)
      ->check(CLI::Range(least, kLongestTime))
      ->check(CheckNoNan)
      ->capture_default_str();
}

template <typename Number>
void AddBytes(CLI::App* app, const std::string& name, Number* bytes, const char* help) {
  app->add_option(name, *bytes, help)
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(kFewestBytes, kMostBytes))
      ->capture_default_str();
}

void AddFile(CLI::App* app, const std::string& name, std::string* path, const char* help) {
  app->add_option(name, *path, help)->type_name("FILE");
}

// The parser's own error for one setting of a section, without the dashes.
void ParseSetting(const SettingsSection& section, const std::string& key, CLI::App* app) {
  std::vector<std::string> arguments;
  for (const std::string& value : section.Texts(key)) {
    std::string argument = "--" + key;
    argument.append("=").append(value);
    arguments.insert(arguments.begin(), std::move(argument));  // the parser takes the last one
  }
  try {
    app->parse(std::move(arguments));
  } catch (const CLI::ParseError& failure) {
    const std::string text = failure.what();
    section.Refuse(section.LineOf(key), text.substr(text.find_first_not_of('-')));
  }
}

// The part that only sections have.
struct SectionSettings {
  std::string type;
  std::string url;
  DestinationSettings common;

  void DeclareOn(CLI::App* app) {
    app->set_help_flag();
    app->add_option("--type", type);
    app->add_option("--url", url);
    app->add_option("--user", common.credentials.user);
    app->add_option("--password-file", common.credentials.password_file);
    common.DeclareOn(app, "--");
  }
};

DestinationKind KindOf(const SettingsSection& section, const std::string& type) {
  std::string known;
  for (const DestinationKind kind : kDestinationKinds) {
    if (FactsOf(kind).name == type) return kind;
    known += (known.empty() ? "" : ", ") + std::string(FactsOf(kind).name);
  }
  section.Refuse(section.LineOf("type"), "type: give one of " + known);
}

}  // namespace

void DestinationSettings::DeclareOn(CLI::App* app, const std::string& prefix) {
  app->add_option("--header", credentials.headers, "Send this with each request: 'Name: value'")
      ->allow_extra_args(false)
      ->check(CheckHeader)
      ->type_name("HEADER");
  AddFile(app, "--bearer-file", &credentials.bearer_file, "File with a token for each request");
  AddFile(app, "--ca-file", &credentials.ca_file, "Certificates to trust, instead of the host's");
  AddFile(app, "--client-cert", &credentials.client_cert, "Certificate of the agent, PEM");
  AddFile(app, "--client-key", &credentials.client_key, "Its key, if that is in another file");
  app->add_option(prefix + "batch-points", batch_points, "Points of a request, at most")
      ->check(CLI::Range(uint64_t{1}, kMostPoints))
      ->capture_default_str();
  AddSeconds(app, prefix + "interval", 0.01, &interval, "Seconds that a point waits for others");
  app->add_option(prefix + "queue-points", queue_points, "Points that may wait for the database")
      ->check(CLI::Range(uint64_t{1}, kMostPoints))
      ->capture_default_str();
  AddBytes(app, prefix + "queue-bytes", &queue_bytes, "Bytes that they may take");
  app->add_option("--spool", spool,
                  "Folder for points that wait, where memory does not do and between two runs")
      ->type_name("DIR");
  AddBytes(app, "--spool-bytes", &spool_bytes, "Bytes of its files");
  AddSeconds(app, prefix + "timeout", 0.1, &timeout, "Seconds for a request and its reply");
  app->add_option("--resource", resource, "Attribute of all that is sent by OTLP: key=value")
      ->allow_extra_args(false)
      ->check(CheckResource)
      ->type_name("KEY=VALUE");
  CLI::Option* const spread_flag = app->add_flag(
      "--spread", spread,
      "Send once in each interval of the services, at a time of this host's own: the default");
  app->add_flag("--no-spread", no_spread, "Send points as they come")->excludes(spread_flag);
  app->add_option(prefix + "catch-up", catch_up,
                  "After an outage, send so many times as fast as points come in; 0: no bound")
      ->check(CLI::Range(0.0, kMostCatchUp))
      ->check(CheckNoNan)
      ->check(CheckCatchUp)
      ->capture_default_str();
}

ForwardOptions DestinationSettings::ToOptions(const std::string& name, DestinationKind kind,
                                              const std::string& url) const {
  ForwardOptions options;
  std::string error;
  options.name = name;
  options.kind = kind;
  ParseForwardUrl(url, &options.target.url, &error, kind);
  options.target.credentials = ReadCredentials(credentials);
  options.target.timeout = ToMilliseconds(timeout);
  if (!options.target.url.user.empty() &&
      !(credentials.user.empty() && credentials.bearer_file.empty())) {
    throw CredentialError(credentials.user.empty() ? "bearer-file" : "user",
                          "there is a user in the URL");
  }
  options.limits.batch_points = batch_points;
  options.limits.interval = ToMilliseconds(interval);
  options.limits.queue_points = queue_points;
  options.limits.queue_bytes = queue_bytes;
  options.spool.folder = spool;
  options.spool.bytes = spool_bytes;
  options.host = HostName();
  for (const std::string& attribute : resource) {
    if (kind == DestinationKind::kOtlp) options.resource.push_back(SplitAttribute(attribute));
  }
  options.limits.send.catch_up = catch_up;
  if (spread && !no_spread) options.limits.send.spread = SpreadHash(options.host, name);
  return options;
}

void ForwardFlags::DeclareOn(CLI::App* app) {
  for (const DestinationKind kind : kDestinationKinds) {
    const DestinationFacts facts = FactsOf(kind);
    app->add_option("--" + std::string(facts.flag), urls[kind], std::string(facts.help))
        ->allow_extra_args(false)
        ->check([kind](const std::string& text) { return CheckUrl(text, kind); })
        ->type_name("URL");
  }
  settings.DeclareOn(app, "--forward-");
}

std::vector<ForwardOptions> ForwardFlags::ToOptions() const {
  std::vector<ForwardOptions> all;
  try {
    for (const auto& [kind, urls_of_kind] : urls) {
      const std::string flag(FactsOf(kind).flag);
      for (size_t i = 0; i < urls_of_kind.size(); ++i) {
        const std::string name = i == 0 ? flag : flag + '-' + std::to_string(i + 1);
        all.push_back(settings.ToOptions(name, kind, urls_of_kind[i]));
      }
    }
  } catch (const CredentialError& failure) {
    throw CLI::ValidationError("--" + failure.setting, failure.what());
  }
  if (all.size() > kMostDestinations) {
    throw CLI::ValidationError("--" + std::string(FactsOf(all.back().kind).flag), TooMany());
  }
  const auto otlp = urls.find(DestinationKind::kOtlp);
  if (!settings.resource.empty() && (otlp == urls.end() || otlp->second.empty())) {
    throw CLI::ValidationError("--resource", "is for --otlp");
  }
  if (all.empty() && !settings.spool.empty()) {
    throw CLI::ValidationError("--spool", "is for a destination, and no flag makes one");
  }
  const bool secret = !(settings.credentials == CredentialSettings());
  if (all.size() != 1 && secret) {
    throw CLI::ValidationError(
        "--header", "and the other credentials are for one destination, and flags make " +
                        std::to_string(all.size()) +
                        "; give them in the sections [destination.NAME] of a settings file");
  }
  for (ForwardOptions& one : all) {
    if (all.size() == 1 || settings.spool.empty()) continue;
    one.spool.parent = settings.spool;
    one.spool.folder = settings.spool + '/' + one.name;
  }
  return all;
}

ForwardOptions DestinationOf(const SettingsSection& section) {
  SectionSettings read;
  CLI::App names;
  read.DeclareOn(&names);
  std::vector<std::string> keys;
  for (const CLI::Option* option : names.get_options()) keys.push_back(option->get_lnames()[0]);
  section.CheckKeys(keys);
  for (const Setting& setting : section.settings) {
    CLI::App app;
    read.DeclareOn(&app);
    ParseSetting(section, setting.key, &app);
  }
  const DestinationKind kind = KindOf(section, read.type);
  if (kind != DestinationKind::kOtlp && !read.common.resource.empty()) {
    section.Refuse(section.LineOf("resource"), "resource: is for the type otlp");
  }
  const std::string error = CheckUrl(read.url, kind);
  if (!error.empty()) section.Refuse(section.LineOf("url"), "url: " + error);
  try {
    return read.common.ToOptions(section.name, kind, read.url);
  } catch (const CredentialError& failure) {
    section.Refuse(section.LineOf(failure.setting), failure.setting + ": " + failure.what());
  }
}

void CheckTogether(const std::vector<ForwardOptions>& destinations,
                   const std::vector<SettingsSection>& sections) {
  const size_t of_flags = destinations.size() - sections.size();
  for (size_t i = of_flags; i < destinations.size(); ++i) {
    const ForwardOptions& one = destinations[i];
    const SettingsSection& section = sections[i - of_flags];
    if (i >= kMostDestinations) {
      section.Refuse(section.line, TooMany());
    }
    for (size_t j = 0; j < i; ++j) {
      const ForwardOptions& other = destinations[j];
      if (other.name == one.name) {
        section.Refuse(section.line, "a flag makes a destination \"" + one.name + "\" already");
      }
      if (!one.spool.folder.empty() && Normal(other.spool.folder) == Normal(one.spool.folder)) {
        section.Refuse(section.LineOf("spool"), "spool: \"" + other.name + "\" has that folder");
      }
    }
  }
}

}  // namespace tidegate::agent

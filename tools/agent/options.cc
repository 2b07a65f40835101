#include "agent/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "agent/forward_flags.h"
#include "agent/http_server.h"
#include "agent/nearest_name.h"
#include "agent/packet_listener.h"
#include "agent/settings_sections.h"

namespace tidegate::agent {
namespace {

constexpr int kBadFlag = 2;
constexpr char kDestinationSection[] = "destination";

// The values that the parser fills in, before they become the agent's options.
struct Raw {
  Options options;
  std::string mode = "0666";
  std::string print;
  std::string process_label = "slot";
  bool label_pid = false;
  bool quiet = false;
  ForwardFlags forward;
  int64_t history = 0;
  int64_t ttl = 0;
  int64_t max_ahead = 0;
  int64_t drain = 0;
  std::string merge_gauge = "sum";
  int64_t merge_delay = 0;
};

std::string CheckMode(const std::string& text) {
  const bool octal =
      !text.empty() && text.size() <= 4 && text.find_first_not_of("01234567") == std::string::npos;
  return octal ? std::string() : "\"" + text + "\" is no file mode, give octal digits as 0660";
}

std::string CheckAddress(const std::string& text) {
  std::string host;
  int port = 0;
  if (HttpServer::SplitAddress(text, &host, &port)) return {};
  return "\"" + text +
         "\" is no address, give HOST:PORT as 127.0.0.1:9464, or :9464 for all addresses";
}

// Those that the file may have.
std::vector<std::string> SettingNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options()) {
    if (!option->get_configurable()) continue;  // as --help
    for (const std::string& name : option->get_lnames()) names.push_back(name);
  }
  return names;
}

// The number of the line that sets `key`; 0 if there is none.
size_t LineOf(const std::string& text, const std::string& key) {
  std::istringstream lines(text);
  size_t number = 1;
  for (std::string line; std::getline(lines, line); ++number) {
    if (CLI::detail::trim_copy(line.substr(0, line.find('='))) == key) return number;
  }
  return 0;
}

// As the parser's own, but says where an unknown setting stands, and takes sections.
class SettingsFile : public CLI::ConfigTOML {
 public:
  // Fills in `sections` when the file is read.
  SettingsFile(const CLI::App* app, std::vector<SettingsSection>* sections)
      : app_(app), sections_(sections) {}

  std::vector<CLI::ConfigItem> from_config(std::istream& input) const override {
    const auto file = app_->get_config_ptr()->as<std::string>();
    std::string text(std::istreambuf_iterator<char>(input), {});
    const std::vector<std::string> names = SettingNames(*app_);
    *sections_ = TakeSections(file, {kDestinationSection, "rule"}, names, &text);
    std::istringstream again(text);
    std::vector<CLI::ConfigItem> settings = CLI::ConfigTOML::from_config(again);
    for (const CLI::ConfigItem& item : settings) {
      const std::string key = item.fullname();
      if (app_->get_option_no_throw("--" + key) != nullptr) continue;
      const size_t line = LineOf(text, key);
      throw CLI::ConfigError(file + (line > 0 ? ':' + std::to_string(line) : "") + ": " +
                             NoSuchSetting(key, names));
    }
    return settings;
  }

 private:
  const CLI::App* const app_;
  std::vector<SettingsSection>* const sections_;
};

// Memory sizes: plain bytes, or with a unit as 64MiB.
void AddBytes(CLI::App* app, const char* name, size_t* bytes, const char* help) {
  app->add_option(name, *bytes, help)
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(size_t{1} << 20, size_t{1} << 40))
      ->capture_default_str();
}

void AddSeconds(CLI::App* app, const char* name, int64_t least, int64_t* seconds,
                const char* help) {
  constexpr int64_t kMost = 31622400;  // a year
  app->add_option(name, *seconds, help)->check(CLI::Range(least, kMost))->capture_default_str();
}

void Declare(CLI::App* app, Raw* raw) {
  Options& options = raw->options;
  app->set_version_flag("--version", "tidegate-agent " TIDEGATE_VERSION);
  app->set_config("--config", "", "File with settings, by the same names: ttl = 60")
      ->type_name("FILE");
  app->add_flag("--check", options.check,
                "Try the settings, also with an empty request to each destination, and say what an "
                "agent would find")
      ->configurable(false);
  app->allow_config_extras(CLI::config_extras_mode::error);
  app->config_formatter(std::make_shared<SettingsFile>(app, &raw->options.sections));
  app->add_option("--socket", options.socket, "Path of the socket to listen on")
      ->check(PacketListener::CheckPath)
      ->type_name("PATH")
      ->capture_default_str();
  app->add_option("--socket-mode", raw->mode, "Who may send: mode of the socket file, octal")
      ->check(CheckMode)
      ->capture_default_str();
  app->add_flag("--take-over", options.take_over,
                "Get the socket from an agent of the same user that has it, which then ends");
  app->add_option("--print", raw->print, "Print every point: text, or json for JSON lines")
      ->check(CLI::IsMember({"text", "json"}));
  app->add_flag("--quiet", raw->quiet, "Print no points, only errors and the totals");
  CLI::Option* const label =
      app->add_option("--process-label", raw->process_label,
                      "Tag that tells processes apart: slot, a small number; pid; or none")
          ->check(CLI::IsMember({"slot", "pid", "none"}))
          ->capture_default_str();
  app->add_flag("--label-pid", raw->label_pid, "The same as --process-label pid")->excludes(label);
  app->add_option("--http", options.http,
                  "Serve /metrics on HOST:PORT, as 127.0.0.1:9464, or on all addresses, as :9464")
      ->check(CheckAddress);
  AddSeconds(app, "--history", 0, &raw->history,
             "Seconds that points are kept for the plots of the page at /; 0: none");
  AddBytes(app, "--history-bytes", &options.history_bytes, "Bytes that they may take");
  app->add_flag("--timestamps", options.timestamps, "Write timestamps on /metrics");
  AddSeconds(app, "--ttl", 1, &raw->ttl, "Seconds after which a series without news is gone");
  AddSeconds(app, "--max-ahead", 1, &raw->max_ahead,
             "Seconds that a point may be later than the host's clock to be shown on /metrics");
  app->add_option("--max-series", options.max_series, "Series that are kept at a time")
      ->check(CLI::Range(size_t{1}, size_t{1} << 32))
      ->capture_default_str();
  AddBytes(app, "--queue-bytes", &options.queue_bytes, "Packets that may wait to be decoded");
  app->add_flag("--merge", options.merge, "Make one series of those of all processes");
  app->add_option("--merge-gauge", raw->merge_gauge, "What becomes of gauges that are merged")
      ->check(CLI::IsMember({"last", "sum", "max"}))
      ->capture_default_str();
  AddSeconds(
      app, "--merge-delay", 1, &raw->merge_delay,
      "Seconds after the end of an interval to wait for processes that have not reported it");
  raw->forward.DeclareOn(app);
  AddSeconds(app, "--drain", 0, &raw->drain, "Seconds to hand on what is left, at the end");
}

ProcessLabel LabelOf(const Raw& raw) {
  if (raw.label_pid || raw.process_label == "pid") return ProcessLabel::kPid;
  return raw.process_label == "slot" ? ProcessLabel::kSlot : ProcessLabel::kNone;
}

// Those of flags, then those of sections.
std::vector<ForwardOptions> DestinationsOf(const Raw& raw) {
  std::vector<ForwardOptions> destinations = raw.forward.ToOptions();
  std::vector<SettingsSection> sections;
  for (const SettingsSection& section : raw.options.sections) {
    if (section.kind == kDestinationSection) sections.push_back(section);
  }
  for (const SettingsSection& section : sections) destinations.push_back(DestinationOf(section));
  CheckTogether(destinations, sections);
  return destinations;
}

Options Finish(const Raw& raw) {
  Options options = raw.options;
  options.socket_mode = static_cast<mode_t>(std::stoul(raw.mode, nullptr, 8));
  options.history = std::chrono::seconds(options.http.empty() ? 0 : raw.history);
  options.ttl = std::chrono::seconds(raw.ttl);
  options.max_ahead = std::chrono::seconds(raw.max_ahead);
  options.drain = std::chrono::seconds(raw.drain);
  options.merge_delay = std::chrono::seconds(raw.merge_delay);
  options.merge_gauge = GaugeMergeOf(raw.merge_gauge).value_or(GaugeMerge::kSum);
  options.process_label = options.merge ? ProcessLabel::kNone : LabelOf(raw);
  options.destinations = DestinationsOf(raw);
  const bool elsewhere = !options.http.empty() || !options.destinations.empty();
  const bool silent = raw.quiet || (raw.print.empty() && elsewhere);
  if (!silent) options.print = raw.print == "json" ? PrintFormat::kJson : PrintFormat::kText;
  return options;
}

std::map<std::string, std::string> TextsOf(const CLI::App& app) {
  std::map<std::string, std::string> texts;
  for (const CLI::Option* option : app.get_options()) {
    const std::string given = CLI::detail::join(option->results());
    texts[option->get_single_name()] = option->empty() ? option->get_default_str() : given;
  }
  return texts;
}

OptionsError BadSettings(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return {kBadFlag, text + "; see --help"};
}

}  // namespace

std::optional<Options> ParseOptions(int argc, const char* const* argv, OptionsError* error) {
  CLI::App app(
      "Receives metrics packets on a local socket; prints the points in them, serves them to "
      "Prometheus and forwards them to a database.",
      "tidegate-agent");
  app.footer("tidegate-agent top shows an agent that runs; see tidegate-agent top --help.");
  Raw raw;
  raw.ttl = raw.options.ttl.count();
  raw.max_ahead = raw.options.max_ahead.count();
  raw.drain = raw.options.drain.count();
  raw.merge_delay = raw.options.merge_delay.count();
  Declare(&app, &raw);
  try {
    app.parse(argc, argv);
    if (raw.options.merge &&
        (raw.label_pid || (app.count("--process-label") > 0 && raw.process_label != "none"))) {
      throw CLI::ValidationError("--merge",
                                 "makes one series of all processes, so no label of a "
                                 "process (--process-label) goes with it");
    }
    raw.options.rules = ReadRules(raw.options.sections);
    const bool merges =
        raw.options.merge || std::any_of(raw.options.rules.begin(), raw.options.rules.end(),
                                         [](const Rule& rule) { return rule.merge; });
    if (!merges && app.count("--merge-gauge") > 0) {
      throw CLI::ValidationError("--merge-gauge", "requires --merge, or a rule that merges");
    }
    raw.options.texts = TextsOf(app);
    return Finish(raw);
  } catch (const CLI::ParseError& failure) {
    if (failure.get_exit_code() == 0) {
      app.exit(failure);  // prints what was asked for
      return std::nullopt;
    }
    const bool in_file = dynamic_cast<const CLI::ConfigError*>(&failure) != nullptr;
    *error = BadSettings((in_file ? "--config: " : "") + std::string(failure.what()));
  } catch (const SettingsError& failure) {
    *error = BadSettings("--config: " + std::string(failure.what()));
  }
  return std::nullopt;
}

}  // namespace tidegate::agent

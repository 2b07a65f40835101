#include "agent/forward_flags.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cmath>

namespace tidegate::agent {
namespace {

// Beyond that a number is a mistake.
constexpr double kLongestTime = 3600;
constexpr double kMostCatchUp = 1000000;
constexpr uint64_t kMostPoints = 1000000000;
constexpr uint64_t kMostBytes = uint64_t{1} << 40;
constexpr uint64_t kFewestBytes = 65536;

std::chrono::milliseconds ToMilliseconds(double seconds) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(seconds));
}

std::string HostName() {
  char name[256] = {};
  if (gethostname(name, sizeof(name) - 1) != 0) return "unknown";
  return name;
}

std::string CheckUrl(const std::string& text) {
  ForwardUrl url;
  std::string error;
  return ParseForwardUrl(text, &url, &error)
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

void AddSeconds(CLI::App* app, const char* name, double least, double* seconds, const char* help) {
  app->add_option(name, *seconds, help)
      ->check(CLI::Range(least, kLongestTime))
      ->check(CheckNoNan)
      ->capture_default_str();
}

}  // namespace

void ForwardFlags::DeclareOn(CLI::App* app) {
  app->add_option("--forward", url,
                  "Send all points to this URL as InfluxDB lines, as http://127.0.0.1:8428/write")
      ->check(CheckUrl)
      ->type_name("URL");
  app->add_option("--forward-batch-points", batch_points, "Points of a request, at most")
      ->check(CLI::Range(uint64_t{1}, kMostPoints))
      ->capture_default_str();
  AddSeconds(app, "--forward-interval", 0.01, &interval, "Seconds that a point waits for others");
  app->add_option("--forward-queue-points", queue_points, "Points that may wait for the database")
      ->check(CLI::Range(uint64_t{1}, kMostPoints))
      ->capture_default_str();
  app->add_option("--forward-queue-bytes", queue_bytes, "Bytes that they may take")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(kFewestBytes, kMostBytes))
      ->capture_default_str();
  app->add_option("--spool", spool,
                  "Folder for points that wait, where memory does not do and between two runs")
      ->needs("--forward")
      ->type_name("DIR");
  app->add_option("--spool-bytes", spool_bytes, "Bytes of its files")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(kFewestBytes, kMostBytes))
      ->capture_default_str();
  AddSeconds(app, "--forward-timeout", 0.1, &timeout, "Seconds for a request and its reply");
  CLI::Option* const spread_flag = app->add_flag(
      "--spread", spread,
      "Send once in each interval of the services, at a time of this host's own: the default");
  app->add_flag("--no-spread", no_spread, "Send points as they come")->excludes(spread_flag);
  app->add_option("--forward-catch-up", catch_up,
                  "After an outage, send so many times as fast as points come in; 0: no bound")
      ->check(CLI::Range(0.0, kMostCatchUp))
      ->check(CheckNoNan)
      ->check(CheckCatchUp)
      ->capture_default_str();
}

ForwardOptions ForwardFlags::ToOptions() const {
  ForwardOptions options;
  std::string error;
  ParseForwardUrl(url, &options.url, &error);
  options.limits.batch_points = batch_points;
  options.limits.interval = ToMilliseconds(interval);
  options.limits.queue_points = queue_points;
  options.limits.queue_bytes = queue_bytes;
  options.timeout = ToMilliseconds(timeout);
  options.spool.folder = spool;
  options.spool.bytes = spool_bytes;
  options.host = HostName();
  options.limits.send.catch_up = catch_up;
  if (spread && !no_spread) options.limits.send.spread = SpreadHash(options.host, "forward");
  return options;
}

}  // namespace tidegate::agent

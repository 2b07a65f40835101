#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <system_error>

#include "agent/packet_log.h"
#include "agent/seqpacket_server.h"

namespace {

using tidegate::agent::OutputFormat;
using tidegate::agent::PacketLog;
using tidegate::agent::PacketTotals;
using tidegate::agent::SeqpacketServer;

struct Options {
  std::string socket = "/opt/tmp/sock/metric_seqpacket.sock";
  std::string format = "text";
  bool quiet = false;
};

void Declare(CLI::App* app, Options* options) {
  app->add_option("--socket", options->socket, "Path of the socket to listen on")
      ->capture_default_str();
  app->add_option("--format", options->format, "How to print points: text, or json for JSON lines")
      ->check(CLI::IsMember({"text", "json"}))
      ->capture_default_str();
  app->add_flag("--quiet", options->quiet, "Print no points, only errors and the totals");
}

OutputFormat ToFormat(const Options& options) {
  if (options.quiet) return OutputFormat::kNone;
  return options.format == "json" ? OutputFormat::kJson : OutputFormat::kText;
}

// Ends the server in order at the first signal of a kind, as long as this object lives. A second
// one kills the agent, should it be stuck in writing to a reader that does not read.
class StopOnSignals {
 public:
  explicit StopOnSignals(SeqpacketServer* server) {
    target_ = server;
    struct sigaction action = {};
    action.sa_handler = [](int) { target_->Stop(); };
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
  }
  ~StopOnSignals() {
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
  }
  StopOnSignals(const StopOnSignals&) = delete;
  StopOnSignals& operator=(const StopOnSignals&) = delete;

 private:
  static inline SeqpacketServer* target_ = nullptr;
};

int Serve(const Options& options) {
  PacketLog log(ToFormat(options), stdout, stderr);
  SeqpacketServer server(
      [&log](const SeqpacketServer::Message& message) { return log.Handle(message); },
      [&log](const std::string& warning) { log.Report(warning); });
  const StopOnSignals stop(&server);

  std::string error;
  if (!server.Listen(options.socket, &error)) {
    log.Report(error);
    return 1;
  }
  log.Report("listening on " + options.socket);
  const bool served = server.Run(&error);
  if (!served) log.Report(error);

  // A reader that has seen enough is no failure.
  const bool written = log.write_error() == 0 || log.write_error() == EPIPE;
  if (!written) {
    log.Report("cannot write points: " + std::generic_category().message(log.write_error()));
  }
  const PacketTotals& totals = log.totals();
  log.Report(
      "packets=" + std::to_string(totals.packets) + " series=" + std::to_string(totals.series) +
      " points=" + std::to_string(totals.points) + " errors=" + std::to_string(totals.errors));
  return served && written ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    Options options;
    CLI::App app("Receives metrics packets on a local socket and prints the points in them.",
                 "tidegate-agent");
    Declare(&app, &options);
    CLI11_PARSE(app, argc, argv);
    return Serve(options);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tidegate-agent: %s\n", failure.what());
    return 1;
  }
}

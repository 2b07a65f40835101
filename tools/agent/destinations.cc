#include "agent/destinations.h"

#include <algorithm>

#include "agent/formats.h"

namespace tidegate::agent {

Destinations::Destination::Destination(const ForwardOptions& made,
                                       const SeriesTable::Options& table, Health* health, Log* log)
    : options(made),
      numbers(health, made.name),
      forwarder(made, MakeFormat(made, table), &numbers, health,
                [log](const std::string& line) { log->Report(line); }) {}

Destinations::Destinations(const std::vector<ForwardOptions>& options,
                           const SeriesTable::Options& table, Health* health, Log* log)
    : log_(log) {
  for (const ForwardOptions& one : options) all_.emplace_back(one, table, health, log);
}

void Destinations::AddSinks(std::vector<PacketSink*>* sinks) {
  for (Destination& one : all_) sinks->push_back(&one.forwarder);
}

void Destinations::Start() {
  for (Destination& one : all_) {
    one.forwarder.Start();
    ReportTarget(one.options);
  }
}

void Destinations::Tick() {
  for (Destination& one : all_) one.forwarder.Tick();
}

void Destinations::Flush() {
  for (Destination& one : all_) one.forwarder.Flush();
}

bool Destinations::IsIdle() const {
  return std::all_of(all_.begin(), all_.end(),
                     [](const Destination& one) { return one.forwarder.IsIdle(); });
}

void Destinations::Stop(std::chrono::milliseconds drain) {
  for (Destination& one : all_) one.forwarder.BeginStop(drain);
  for (Destination& one : all_) one.forwarder.Stop(drain);
}

void Destinations::Change(const std::vector<ForwardOptions>& next, std::set<std::string>* changed,
                          std::set<std::string>* unchanged) {
  for (const ForwardOptions& wanted : next) {
    const auto known = std::find_if(all_.begin(), all_.end(), [&](const Destination& one) {
      return one.options.name == wanted.name;
    });
    if (known == all_.end() || !IsSameBesideTarget(known->options, wanted)) {
      unchanged->insert(wanted.name);
    }
    if (known == all_.end() || known->options.kind != wanted.kind ||
        known->options.target == wanted.target) {
      continue;
    }
    known->options.target = wanted.target;
    known->forwarder.Redirect(wanted.target);
    changed->insert(wanted.name);
    ReportTarget(wanted);
  }
  for (const Destination& one : all_) {
    if (std::none_of(next.begin(), next.end(), [&](const ForwardOptions& wanted) {
          return wanted.name == one.options.name;
        })) {
      unchanged->insert(one.options.name);
    }
  }
}

std::vector<DestinationStatus> Destinations::Statuses() const {
  std::vector<DestinationStatus> statuses;
  for (const Destination& one : all_) statuses.push_back(one.forwarder.Status());
  return statuses;
}

void Destinations::ReportTarget(const ForwardOptions& options) noexcept {
  const ForwardUrl& url = options.target.url;
  log_->ReportJoined(LogLevel::kInfo, {"forwarding to ", url.shown});
  if (!IsForeignTarget(url.target, options.kind)) return;
  log_->ReportJoined(LogLevel::kWarning,
                     {url.shown, " is not known to take ", FactsOf(options.kind).takes});
}

}  // namespace tidegate::agent

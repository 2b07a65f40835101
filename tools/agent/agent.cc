#include "agent/agent.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <set>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "agent/shown_settings.h"
#include "agent/slot_file.h"
#include "agent/survives.h"

namespace tidegate::agent {
namespace {

// At the end, for slow clients of the HTTP side and a slow reader of the log.
constexpr std::chrono::seconds kReadersDrain(2);
constexpr std::chrono::minutes kPrintingLineInterval(1);

// For the last packets of the services, though the time of --drain may be over by then.
constexpr std::chrono::seconds kLastWords(1);

// Of the time of --drain, for the last points. Otherwise a destination that hangs would use up the
// time of those that work.
constexpr std::chrono::milliseconds kOutputsShare(1000);

std::string SlotPath(const Options& options) { return options.socket + ".slots"; }

// Remote write shows series as the page does, and the table of the page says which names collide.
bool ShowsSeries(const Options& options) {
  return !options.http.empty() ||
         std::any_of(options.destinations.begin(), options.destinations.end(),
                     [](const ForwardOptions& destination) {
                       return destination.kind == DestinationKind::kRemoteWrite;
                     });
}

SeriesTable::Options TableOptions(const Options& options) {
  return {options.max_series, options.ttl, options.process_label, ShowsSeries(options),
          options.max_ahead};
}

// Of the table that the pages show.
SeriesTable::Options ShownTableOptions(const Options& options) {
  SeriesTable::Options shown = TableOptions(options);
  shown.history = options.history;
  shown.history_bytes = options.history_bytes;
  return shown;
}

std::chrono::milliseconds Left(std::chrono::steady_clock::time_point end) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  return std::max(left, std::chrono::milliseconds(0));
}

std::string Listed(const std::set<std::string>& names) {
  if (names.empty()) return " nothing";
  std::string list;
  for (const std::string& name : names) list += ' ' + name;
  return list;
}

}  // namespace

Agent::Agent(const Options& options, Reader read)
    : options_(options),
      read_(std::move(read)),
      drain_(options.drain),
      texts_(options.texts),
      log_(STDERR_FILENO),
      queue_(options.queue_bytes, &health_),
      server_([this](SeqpacketServer::Message message) { queue_.Push(std::move(message)); },
              [this](const std::string& warning) { log_.ReportSome(warning); }, &health_.clients,
              &connected_),
      services_([this](const ProcessId& process) { return IsLive(process); }),
      table_(ShownTableOptions(options), &health_,
             [this](const std::string& collision) { ReportCollision(collision); }),
      destinations_(options.destinations, TableOptions(options), &health_, &log_),
      status_(
          &health_, &table_, &services_, [this] { return destinations_.Statuses(); },
          options.history),
      teller_([this](std::string* text) { status_.Append(text); }, &health_),
      api_(&table_, &status_),
      decoder_{// in this order
               &queue_, Sinks(),     [this] { LookAfterThings(); }, &health_, &log_, Slots(),
               Rules(), {&services_}} {}

std::vector<PacketSink*> Agent::Sinks() {
  std::vector<PacketSink*> sinks = {&table_};
  if (options_.print) {
    sinks.push_back(&printer_.emplace(
        *options_.print, options_.process_label, STDOUT_FILENO,
        [this](int error) { PrintingChanged(error); }, &health_));
  }
  destinations_.AddSinks(&sinks);
  // Without --merge it has what rules merge.
  merge_.emplace(
      MergeStage::Options{options_.merge_gauge, options_.merge_delay, options_.max_series,
                          options_.ttl, options_.process_label},
      sinks, &health_, [this](const std::string& line) { log_.Report(line); },
      [this](const ProcessId& process) { return IsLive(process); });
  if (!options_.merge) return sinks;
  return {&*merge_};
}

RuleStage* Agent::Rules() {
  rules_.emplace(
      options_.merge, &*merge_, &health_.rules,
      [this](const std::string& line) { log_.Report(line); },
      [this](const std::string& collision) { ReportCollision(collision); });
  rules_->Change(options_.rules, Clock::now());
  return &*rules_;
}

ProcessSlots* Agent::Slots() {
  if (options_.process_label != ProcessLabel::kSlot) return nullptr;
  return &slots_.emplace([this](const ProcessId& process) { return IsLive(process); }, &health_);
}

void Agent::LookAfterSlots() {
  slots_->Sweep(Clock::now());
  if (server_.handed_to() != 0) return;  // the file is the next agent's
  if (std::exchange(saved_slots_, slots_->changes()) == slots_->changes()) return;
  if (WriteSlots(SlotPath(options_), slots_->Slots()) ||
      std::exchange(slots_unsaved_reported_, true)) {
    return;
  }
  log_.Report("cannot keep the slots of processes in " + SlotPath(options_) + ": " +
              std::generic_category().message(errno));
}

// In this order: the messages of a process are in the queue before its connection goes.
bool Agent::IsLive(const ProcessId& process) const {
  return connected_.Contains(process) || queue_.Holds(process);
}

int Agent::Run() {
  if (!Start()) return End(1);
  teller_.Start();
  server_.AnswerStatus([this](UniqueFd asker) { teller_.Take(std::move(asker)); });
  std::thread decoder([this] {
    pthread_setname_np(pthread_self(), "decoder");
    decoder_.Run();
  });
  manager_.Tell("READY=1");
  const bool served = Serve();
  manager_.Tell("STOPPING=1");
  const std::chrono::milliseconds drain = drain_.load();
  const Clock::time_point end = Clock::now() + drain;
  const bool in_time = served && Linger(end - std::min(drain / 4, kOutputsShare));
  if (http_) http_->Stop(std::chrono::seconds(0));
  server_.Close();
  teller_.Stop();
  const Clock::time_point last = std::max(end, Clock::now() + kLastWords);
  queue_.Close(last);
  decoder.join();
  if (slots_) Survives(&health_, [this] { LookAfterSlots(); });
  Survives(&health_, [&] { merge_->Flush(); });
  if (const pid_t successor = server_.handed_to(); successor != 0) {
    log_.Report("process " + std::to_string(successor) + " has taken the socket over",
                LogLevel::kInfo);
  }
  const bool printed = FinishOutputs(in_time ? last : end);
  ReportTotals();
  return End(served && printed && !http_failed_ ? 0 : 1);
}

bool Agent::Serve() {
  bool served = false;
  Survives(&health_, [&] {
    std::string error;
    served = server_.Run(&error);
    if (!served) log_.Report(error, LogLevel::kError);
  });
  return served;
}

bool Agent::Linger(Clock::time_point end) {
  destinations_.Flush();
  bool in_time = true;
  const auto done = [&] {
    if (queue_.IsIdle() && destinations_.IsIdle()) return true;  // points go from left to right
    in_time = Clock::now() < end;
    return !in_time;
  };
  server_.RunUntil(std::ref(done));  // which takes no memory
  return in_time;
}

void Agent::LookAfterThings() {
  manager_.KeepAlive();
  if (reload_asked_.exchange(false)) {
    manager_.TellReloading();
    Survives(&health_, [this] { ReadSettings(); });
    manager_.Tell("READY=1");
  }
  if (health_.out_of_memory != out_of_memory_) {
    out_of_memory_ = health_.out_of_memory;
    log_.ReportOutOfMemory();
  }
  merge_->Tick();
  rules_->Tick(Clock::now());
  destinations_.Tick();
  table_.Sweep();
  services_.Sweep();
  status_.Look();
  if (slots_) LookAfterSlots();
  trimmer_.Look(health_.BytesInUse());
  const std::string drops = queue_.ReportDrops(Clock::now());
  if (!drops.empty()) log_.Report(drops);
}

void Agent::ReadSettings() {
  OptionsError error;
  const std::optional<Options> next = read_ ? read_(&error) : options_;
  if (next) return ChangeTo(*next);
  log_.Report("not reloaded, all settings stay as they are: " + error.text);
}

void Agent::ChangeTo(const Options& next) {
  // Those of destinations are told by the names of these.
  static const std::set<std::string_view> kOfTargets = {"ca-file",    "bearer-file", "client-cert",
                                                        "client-key", "header",      "forward",
                                                        "otlp",       "remote-write"};
  static const std::set<std::string_view> kChangeable = {"drain", "forward-timeout", "max-ahead",
                                                         "ttl"};
  std::map<std::string, std::string> texts = texts_;
  std::set<std::string> changed;
  std::set<std::string> unchanged;
  for (const auto& [name, text] : next.texts) {
    const bool can_change = kChangeable.count(name) > 0 || kOfTargets.count(name) > 0;
    if (kOfTargets.count(name) == 0 && texts[name] != text) {
      (can_change ? changed : unchanged).insert(name);
    }
    if (can_change) texts[name] = text;
  }
  drain_ = next.drain;
  table_.SetTimes(next.ttl, next.max_ahead);
  merge_->SetTtl(next.ttl);
  if (rules_->Change(next.rules, Clock::now())) changed.insert("rules");
  destinations_.Change(next.destinations, &changed, &unchanged);
  texts_.swap(texts);
  status_.SetSettings(ShownSettings(texts_));
  log_.Report("reloaded, changed:" + Listed(changed), LogLevel::kInfo);
  if (!unchanged.empty()) log_.Report("a restart is needed to change:" + Listed(unchanged));
}

int Agent::End(int status) {
  const Clock::time_point end = Clock::now() + kReadersDrain;
  const bool http_ended = !http_ || http_->Stop(kReadersDrain);
  log_.Finish(Left(end));
  // A slow client may not keep the process. Its thread still uses members that the destructors
  // would destroy.
  if (!http_ended) std::_Exit(status);
  return status;
}

bool Agent::Start() {
  std::string error;
  status_.SetSettings(ShownSettings(texts_));
  if (!Listen(&error) || !StartHttp(&error) || !server_.Listen(&listener_, &error)) {
    log_.Report(error, LogLevel::kError);
    return false;
  }
  if (slots_) slots_->Restore(ReadSlots(SlotPath(options_)));
  destinations_.Start();
  if (!listener_.Confirm(&error)) {
    log_.Report(error, LogLevel::kError);
    return false;
  }
  std::string line = "listening on " + listener_.path();
  if (taker_.from() != 0) line += ", taken over from process " + std::to_string(taker_.from());
  if (listener_.has_file()) {
    server_.OfferSockets(http_ ? http_->ShareListener() : UniqueFd());
  } else {
    line += ", a socket of the service manager";
  }
  log_.Report(line, LogLevel::kInfo);
  return true;
}

bool Agent::Listen(std::string* error) {
  UniqueFd socket;
  if (!ServiceManager::TakeSocket(&socket, error)) return false;
  if (socket.valid()) return listener_.Adopt(std::move(socket), error);
  return listener_.Make(options_.socket, options_.socket_mode,
                        options_.take_over ? &taker_ : nullptr, error);
}

bool Agent::StartHttp(std::string* error) {
  UniqueFd present = std::move(taker_.http());  // closed if it is not wanted
  if (options_.http.empty()) return true;
  http_.emplace(
      [this](std::string* page) { AppendPage(page); },
      [this](const HttpRequest& request, HttpAnswer* answer) { api_.Answer(request, answer); },
      [this](const std::string& line) { log_.ReportSome(line); }, [this] { HttpEnded(); },
      &health_);
  if (!http_->Start(options_.http, error, std::move(present))) return false;
  log_.Report("serving " + http_->url() + "/metrics", LogLevel::kInfo);
  return true;
}

void Agent::PrintingChanged(int error) noexcept {
  const bool ended = StreamWriter::IsFinal(error);
  // If printing is all that there is to do, the agent ends. Otherwise the rest goes on without it.
  if (ended && options_.http.empty() && destinations_.empty()) return Stop();
  Survives(&health_, [&] {
    const Clock::time_point now = Clock::now();
    if (error == 0) {
      if (std::exchange(printing_trouble_told_, false)) log_.Report("points are printed again");
    } else if (ended || now >= next_printing_line_) {
      log_.Report((ended ? "points are no longer printed: " : "points are not printed: ") +
                  std::generic_category().message(error));
      next_printing_line_ = now + kPrintingLineInterval;
      printing_trouble_told_ = true;
    }
  });
}

// An agent that looks alive and shows nothing would be worse than one that is restarted.
void Agent::HttpEnded() noexcept {
  log_.ReportJoined(LogLevel::kError,
                    {"serving ", options_.http, " has ended by itself, so the agent ends as well"});
  http_failed_ = true;
  Stop();
}

void Agent::ReportCollision(const std::string& collision) {
  log_.Report(collision);
  status_.AddCollision(collision);
}

void Agent::AppendPage(std::string* page) {
  AppendHealth(health_, page);
  table_.AppendPage(options_.timestamps, page);
}

bool Agent::FinishOutputs(Clock::time_point end) {
  destinations_.Stop(Left(end));
  if (!printer_) return true;
  // It has printed meanwhile.
  printer_->Finish(Left(end));
  // A reader that has seen enough is no failure.
  if (printer_->error() == 0 || printer_->error() == EPIPE) return true;
  log_.Report("cannot write points: " + std::generic_category().message(printer_->error()),
              LogLevel::kError);
  return false;
}

void Agent::ReportTotals() {
  const uint64_t errors = health_.Errors();
  const uint64_t unforwarded = health_.ForwardDropped();
  const uint64_t dropped = health_.DroppedPackets();
  // Also what was dropped since the last line about it.
  const std::string drops = queue_.ReportDrops(Clock::time_point::max());
  if (!drops.empty()) log_.Report(drops);
  if (health_.out_of_memory != out_of_memory_) log_.ReportOutOfMemory();
  if (dropped > 0 || health_.unprinted_points > 0 || unforwarded > 0) {
    log_.Report("dropped: packets=" + std::to_string(dropped) +
                " unprinted points=" + std::to_string(health_.unprinted_points) +
                " unforwarded points=" + std::to_string(unforwarded));
  }
  log_.Report("packets=" + std::to_string(health_.packets) +
                  " series=" + std::to_string(table_.made()) +
                  " points=" + std::to_string(health_.points) + " errors=" + std::to_string(errors),
              LogLevel::kInfo);
}

}  // namespace tidegate::agent

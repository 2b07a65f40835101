#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/connected_processes.h"
#include "agent/connected_services.h"
#include "agent/decoder.h"
#include "agent/destinations.h"
#include "agent/hand_over.h"
#include "agent/health.h"
#include "agent/heap_trimmer.h"
#include "agent/http_server.h"
#include "agent/log.h"
#include "agent/merge_stage.h"
#include "agent/options.h"
#include "agent/packet_listener.h"
#include "agent/packet_log.h"
#include "agent/packet_queue.h"
#include "agent/page_api.h"
#include "agent/process_slots.h"
#include "agent/rule_stage.h"
#include "agent/seqpacket_server.h"
#include "agent/series_table.h"
#include "agent/service_manager.h"
#include "agent/status_exchange.h"
#include "agent/status_report.h"

namespace tidegate::agent {

// The whole agent: socket, queue, decoder, and what becomes of the points.
//
//   thread of Run: reads the sockets, puts messages into the queue
//   decoder:       takes them out, decodes, hands packets to every sink, or merges them before
//   writers:       of standard output and standard error
//   forwarders:    pack points and send them, each to its destination
//   HTTP:          pages from the table of series
//   status:        the state of the agent, for who asks by the socket
//
// No thread waits for a later one. None ends because memory runs out: it counts its loss. Run once;
// Stop and Reload from any thread and from a signal handler.
class Agent {
 public:
  // Reads the settings again. Nothing, with `error`, if they make no sense.
  using Reader = std::function<std::optional<Options>(OptionsError* error)>;

  // `read` is called on a thread of the agent. Without it the settings stay as they are.
  explicit Agent(const Options& options, Reader read = nullptr);
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Serves until Stop, and then on until what was received is decoded and forwarded, for at most
  // the time of --drain. Then nobody can send any more, and what came last is handed on, in what
  // is left of that time, but at least a second. Returns the exit status of the process.
  int Run();

  void Stop() { server_.Stop(); }

  // Makes the agent read its settings again within a second or so, and change those that can be
  // changed; the log says which. Does not wait.
  void Reload() { reload_asked_ = true; }

 private:
  using Clock = std::chrono::steady_clock;

  std::vector<PacketSink*> Sinks();
  // Makes them; null if points have none.
  ProcessSlots* Slots();
  // Makes the stage that applies them; after Sinks.
  RuleStage* Rules();
  // The function that sinks know as IsLive.
  bool IsLive(const ProcessId& process) const;
  bool Start();
  bool Listen(std::string* error);
  bool StartHttp(std::string* error);
  bool Serve();
  // Serves on until nothing waits to be handed on. False if it still does at `end`.
  bool Linger(Clock::time_point end);
  // Once a second, on the decoder's thread.
  void LookAfterThings();
  void LookAfterSlots();
  // On the writer's thread.
  void PrintingChanged(int error) noexcept;
  void HttpEnded() noexcept;
  void AppendPage(std::string* page);
  void ReportCollision(const std::string& collision);
  // On the decoder's thread.
  void ReadSettings();
  void ChangeTo(const Options& next);
  // Ends the outputs, which come after the decoder, by `end`. False if points could not be printed.
  bool FinishOutputs(Clock::time_point end);
  // The result of Run, once the last lines are written.
  int End(int status);
  void ReportTotals();

  const Options options_;
  const Reader read_;
  std::atomic<std::chrono::seconds> drain_;
  std::map<std::string, std::string> texts_;  // of the settings in force; the decoder's
  Health health_;
  Log log_;
  ServiceManager manager_;
  PacketQueue queue_;
  ConnectedProcesses connected_;
  HandOverTaker taker_;
  PacketListener listener_;
  SeqpacketServer server_;
  std::optional<ProcessSlots> slots_;  // if points are to have them
  uint64_t saved_slots_ = 0;           // its changes that are in the file
  bool slots_unsaved_reported_ = false;
  ConnectedServices services_;
  SeriesTable table_;
  Destinations destinations_;
  StatusReport status_;
  StatusTeller teller_;
  const PageApi api_;
  Clock::time_point next_printing_line_;  // with the next, of the writer's thread
  bool printing_trouble_told_ = false;
  std::optional<PacketLog> printer_;
  uint64_t out_of_memory_ = 0;  // of the count of health_, that the log knows of
  HeapTrimmer trimmer_;         // of the decoder's thread
  std::atomic<bool> http_failed_{false};
  std::atomic<bool> reload_asked_{false};
  static_assert(std::atomic<bool>::is_always_lock_free);
  std::optional<HttpServer> http_;
  std::optional<MergeStage> merge_;  // after the sinks
  std::optional<RuleStage> rules_;   // after that
  Decoder decoder_;                  // after all sinks
};

}  // namespace tidegate::agent

#pragma once

#include <chrono>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "agent/destination_numbers.h"
#include "agent/destination_status.h"
#include "agent/forward_options.h"
#include "agent/forwarder.h"
#include "agent/health.h"
#include "agent/log.h"
#include "agent/packet_sink.h"
#include "agent/series_table.h"

namespace tidegate::agent {

// All destinations. Each has its own queue, spool and thread, so that none waits for another.
//
// Threads: those of Forwarder. Change and Tick on the decoder's; Flush, IsIdle and Statuses on any;
// the rest on the owner's. Borrows `health` and `log`.
class Destinations {
 public:
  // `table` as MakeFormat takes it.
  Destinations(const std::vector<ForwardOptions>& options, const SeriesTable::Options& table,
               Health* health, Log* log);

  bool empty() const { return all_.empty(); }
  void AddSinks(std::vector<PacketSink*>* sinks);

  // As those of a Forwarder, for all. Stop gives all of them the same time.
  void Start();
  void Tick();
  void Flush();
  bool IsIdle() const;
  void Stop(std::chrono::milliseconds drain);

  // Changes URL, credentials and timeout of each destination to those of its name in `next`. Adds
  // the names of those that have changed to `changed`, and of those that would need a restart for
  // that to `unchanged`: they are new, gone, or made in another way.
  void Change(const std::vector<ForwardOptions>& next, std::set<std::string>* changed,
              std::set<std::string>* unchanged);

  std::vector<DestinationStatus> Statuses() const;

 private:
  struct Destination {
    Destination(const ForwardOptions& made, const SeriesTable::Options& table, Health* health,
                Log* log);

    ForwardOptions options;  // as they are now; of the decoder's thread once that runs
    DestinationNumbers numbers;
    Forwarder forwarder;
  };

  void ReportTarget(const ForwardOptions& options) noexcept;

  Log* const log_;
  std::list<Destination> all_;
};

}  // namespace tidegate::agent

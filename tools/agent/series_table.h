#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "agent/health.h"
#include "agent/layout_table.h"
#include "agent/packet_sink.h"
#include "agent/page_names.h"
#include "agent/point_history.h"
#include "agent/point_mapping.h"
#include "agent/report.h"
#include "agent/series_budget.h"
#include "agent/series_identity.h"
#include "agent/series_recorder.h"
#include "agent/series_refusals.h"
#include "agent/series_store.h"
#include "agent/shared_series_log.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// The content of the page of metrics: the newest value of every series, and the sums of those kinds
// that report one interval at a time.
//
// The table finds a record's series by its SeriesIdentity, in the layout of its block: LayoutTable
// has the layouts, SeriesStore the values, PageNames their names on the page. One SeriesBudget
// counts the memory of all.
//
// A point that is older than the newest of its series changes nothing; histograms and timer rows
// add up whatever comes. A series without news for `ttl` is gone, and starts again if it comes
// back. All of that can be left to a SeriesRecorder instead, which the table borrows.
//
// Threads: Handle and Sweep on the decoder's, AppendPage and Read from any. A page is written
// in short turns between which the decoder goes on; a sweep waits for its end. Memory is bounded:
// by SeriesBudget, and so is the work for a packet. A point that finds no room is refused and
// counted. An exception of any call (there is no memory) leaves the table as it was or with a part
// of the packet in it. Borrows `health`.
class SeriesTable : public PacketSink {
 public:
  struct Options {
    size_t max_series = 1000000;
    std::chrono::seconds ttl{300};
    ProcessLabel process_label = ProcessLabel::kNone;
    bool page = true;  // false: series are only counted, and no name can collide
    // Points further in the future are refused: while one is the newest, older ones change nothing.
    std::chrono::seconds max_ahead{3600};
    std::chrono::seconds history{0};  // that points are kept for readers; 0: only the newest values
    size_t history_bytes = 64 << 20;
  };
  struct Time {
    std::chrono::steady_clock::time_point steady;
    int64_t seconds;  // since the epoch
  };
  using Clock = std::function<Time()>;

  // By these a table is bounded.
  static constexpr size_t kBytesPerSeries = SeriesBudget::kBytesPerSeries;
  static constexpr size_t kMaxPacketWork = SeriesBudget::kMaxPacketWork;

  SeriesTable(const Options& options, Health* health, Report report, Clock clock = Now,
              SeriesRecorder* recorder = nullptr);
  ~SeriesTable() override;

  static Time Now();

  void Handle(const Packet& packet, const ClientId& client) override;

  // The same step by step, for those who have no whole packet. A packet begins with its first
  // block. All three are borrowed until the last record of the block. Take returns why the record
  // was refused, if it was.
  void StartBlock(const Packet& packet, const ClientId& client, const Block& block);
  std::optional<Refusal> Take(const Series& record);

  // Changes these two of the options.
  void SetTimes(std::chrono::seconds ttl, std::chrono::seconds max_ahead);

  // Lets go of series that are out of date. To be called every second or so; most calls do nothing.
  void Sweep();

  // Appends the lines of all series, family by family.
  void AppendPage(bool timestamps, std::string* page);

  // A reader of what is in it, see series_reading.h. A page, and each further reader, waits.
  class Reading;
  void Read(const std::function<void(Reading*)>& read);

  // The bytes of the page at most now, without the agent's own numbers.
  size_t PageBytes();

  // How many series were ever made.
  uint64_t made() const { return made_; }

 private:
  class PageTurns;

  // The block in work.
  struct Work {
    const Packet* packet;
    const ClientId* client;
    const Block* block;
    LayoutTable::Target target;
    bool ahead;
  };

  void HandleBlock(const Packet& packet, const ClientId& client, const Block& block)
      METRICS_REQUIRES(mutex_);
  Work WorkFor(const Packet& packet, const ClientId& client, const Block& block)
      METRICS_REQUIRES(mutex_);
  std::optional<Refusal> Take(const Series& record, Work* work) METRICS_REQUIRES(mutex_);
  // The series of the record in work, in the target's layout; `series` is the series as it was
  // found, or null.
  std::optional<Refusal> AddOrMove(LayoutTable::Target* target, KeyedSeries** series)
      METRICS_REQUIRES(mutex_);
  // Lets the recorder, or the table, take the record.
  void Record(KeyedSeries* keyed, Kind kind, const Series& record, int64_t timestamp)
      METRICS_REQUIRES(mutex_);
  bool HasRoom(const LayoutTable::Target& target, bool known) METRICS_REQUIRES(mutex_);
  // Counts the record in work, and its series if that is new. Returns the reason.
  Refusal Refuse(Refusal reason) METRICS_REQUIRES(mutex_);
  void CountSeriesOnce(Refusal reason) METRICS_REQUIRES(mutex_);

  void SweepIfDue() METRICS_REQUIRES(mutex_);
  void UpdateHealth() METRICS_REQUIRES(mutex_);
  void AppendTurns(bool timestamps, std::string* page) METRICS_REQUIRES(page_mutex_);

  const Options options_;
  const Clock clock_;
  Health* const health_;
  SeriesRecorder* const recorder_;  // may be null
  std::atomic<uint64_t> made_{0};
  std::atomic<int> waiting_{0};  // the decoder, for a turn of a page to end

  METRICS::Mutex page_mutex_;  // held for a whole page, outside of mutex_
  METRICS::Mutex mutex_;
  std::chrono::seconds ttl_ METRICS_GUARDED_BY(mutex_);
  std::chrono::seconds max_ahead_ METRICS_GUARDED_BY(mutex_);
  SeriesBudget budget_ METRICS_GUARDED_BY(mutex_);
  PageNames names_ METRICS_GUARDED_BY(mutex_);
  LayoutTable layouts_ METRICS_GUARDED_BY(mutex_);
  SeriesStore series_ METRICS_GUARDED_BY(mutex_);
  SeriesRefusals refusals_ METRICS_GUARDED_BY(mutex_);
  SharedSeriesLog shared_ METRICS_GUARDED_BY(mutex_);
  std::optional<PointHistory> history_ METRICS_GUARDED_BY(mutex_);
  SeriesIdentity identity_ METRICS_GUARDED_BY(mutex_);    // of the record in work
  Work work_ METRICS_GUARDED_BY(mutex_) = {};             // of StartBlock
  bool page_in_work_ METRICS_GUARDED_BY(mutex_) = false;  // nothing may be erased
  Time now_ METRICS_GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point swept_ METRICS_GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point aged_ METRICS_GUARDED_BY(mutex_);  // refusals_
};

}  // namespace tidegate::agent

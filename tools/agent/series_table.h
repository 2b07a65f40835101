#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "agent/health.h"
#include "agent/once_log.h"
#include "agent/packet_sink.h"
#include "agent/page_names.h"
#include "agent/point_mapping.h"
#include "agent/recent_hashes.h"
#include "agent/series_key.h"
#include "agent/series_layout.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// The newest value of every series, and the sums of those kinds that report an interval each: what
// the page of metrics shows.
//
// A point that is older than the newest of its series changes nothing; histograms and timer rows
// add up whatever comes. A series without news for `ttl` is gone, and begins anew if it comes back.
//
// Threads: Handle and Sweep on the decoder's, AppendPage from any, one at a time. A page is written
// in short turns between which the decoder goes on; a sweep waits for its end. Memory is bounded:
// by the number of series, and by kBytesPerSeries and, on the page, kPageBytesPerSeries for each of
// that number. So is the work for a packet, by kMaxPacketWork. What finds no room is refused and
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
  };
  struct Time {
    std::chrono::steady_clock::time_point steady;
    int64_t seconds;  // since the epoch
  };
  using Clock = std::function<Time()>;

  // What the table takes, and what a page takes with every escape, for each of max_series. The
  // series that reaches these limits may exceed them: by kMaxSeriesPageBytes on the page, and by
  // some four times as much in the table.
  static constexpr size_t kBytesPerSeries = 2048;
  static constexpr size_t kPageBytesPerSeries = 512;

  // Of one series with the heads of its families: far above what the limits of the library allow a
  // series that anyone means, as it grows with the product of what a packet holds.
  static constexpr size_t kMaxSeriesPageBytes = size_t{16} << 20;

  // Bytes of keys, names and cells that one packet makes the table go through. Each record repeats
  // the tenant, so more takes a packet that is made to be expensive.
  static constexpr size_t kMaxPacketWork = size_t{64} << 20;

  SeriesTable(const Options& options, Health* health, Report report, Clock clock = Now);
  ~SeriesTable() override;

  static Time Now();

  void Handle(const Packet& packet, const ClientId& client) override;

  // Changes these two of the options.
  void SetTimes(std::chrono::seconds ttl, std::chrono::seconds max_ahead);

  // Lets go of what is out of date. To be called every second or so; most calls do nothing.
  void Sweep();

  // Appends the lines of all series, family by family.
  void AppendPage(bool timestamps, std::string* page);

  // What the page takes at most now, without the agent's own numbers.
  size_t PageBytes();

  // How many series were ever made.
  uint64_t made() const { return made_; }

 private:
  class PageTurns;
  using Node = SeriesNode;

  // The block in work.
  struct Target {
    Kind kind;
    const Block* block;
    SeriesMetric* metric;  // null: there is none yet
    SeriesLayout* layout;  // null: there is none yet
  };

  void HandleBlock(const Packet& packet, const ClientId& client, const Block& block)
      METRICS_REQUIRES(mutex_);
  // The record in work is one of two processes.
  void ReportShared(const Block& block, const Reporter& reporter, pid_t other)
      METRICS_REQUIRES(mutex_);
  Target Find(const Block& block) METRICS_REQUIRES(mutex_);
  Node* FindSeries(const SeriesMetric& metric) METRICS_REQUIRES(mutex_);
  // Makes room for the record in work, and for what the target lacks. `known` is its series, or
  // null. Null if the record is refused.
  Node* Place(Target* target, Node* known) METRICS_REQUIRES(mutex_);
  void AddLayout(Target* target) METRICS_REQUIRES(mutex_);
  // Null if its labels are refused.
  Node* AddSeries(SeriesLayout* layout) METRICS_REQUIRES(mutex_);
  void Move(Node* node, SeriesLayout* layout) METRICS_REQUIRES(mutex_);
  // REQUIRES: the layout has prepared `row`.
  void Attach(Node* node, SeriesLayout* layout, std::unique_ptr<Cell[]> row)
      METRICS_REQUIRES(mutex_);
  void Detach(Node* node) METRICS_REQUIRES(mutex_);

  void SweepIfDue() METRICS_REQUIRES(mutex_);
  void SweepSeries() METRICS_REQUIRES(mutex_);
  void SweepMetrics() METRICS_REQUIRES(mutex_);
  void Shrink() METRICS_REQUIRES(mutex_);

  // For the record in work.
  bool HasRoom(const Target& target, bool known) METRICS_REQUIRES(mutex_);
  // What the layout that the target lacks would take on the page at most, with one series.
  size_t ProductOf(const Target& target) METRICS_REQUIRES(mutex_);
  // Counts the record in work, and its series if that is new.
  void Refuse(Refusal reason) METRICS_REQUIRES(mutex_);
  // That of the record in work.
  void CountSeriesOnce(Refusal reason) METRICS_REQUIRES(mutex_);
  void CountPoints(Refusal reason, size_t count);
  void CountSeries(Refusal reason);
  void UpdateHealth() METRICS_REQUIRES(mutex_);

  void AppendTurns(bool timestamps, std::string* page);

  const Options options_;
  const Clock clock_;
  Health* const health_;
  std::atomic<uint64_t> made_{0};
  std::atomic<int> waiting_{0};  // the decoder, for a turn of a page to end

  METRICS::Mutex page_mutex_;  // held for a whole page, outside of mutex_
  METRICS::Mutex mutex_;
  std::chrono::seconds ttl_ METRICS_GUARDED_BY(mutex_);
  std::chrono::seconds max_ahead_ METRICS_GUARDED_BY(mutex_);
  size_t bytes_ METRICS_GUARDED_BY(mutex_) = 0;       // of the table
  size_t page_bytes_ METRICS_GUARDED_BY(mutex_) = 0;  // of the page, at most
  // By kind and name.
  std::unordered_map<std::string, std::unique_ptr<SeriesMetric>> metrics_
      METRICS_GUARDED_BY(mutex_);
  std::unordered_map<std::string, SeriesEntry> series_ METRICS_GUARDED_BY(mutex_);  // by SeriesKey
  PageNames names_ METRICS_GUARDED_BY(mutex_);
  OnceLog shared_ METRICS_GUARDED_BY(mutex_);
  RecentHashes refused_ METRICS_GUARDED_BY(mutex_);  // series
  uint64_t next_id_ METRICS_GUARDED_BY(mutex_) = 0;
  bool page_in_work_ METRICS_GUARDED_BY(mutex_) = false;  // nothing may be erased
  Time now_ METRICS_GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point swept_ METRICS_GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point aged_ METRICS_GUARDED_BY(mutex_);  // refused_

  // Of the packet, the block and the record in work.
  size_t work_ METRICS_GUARDED_BY(mutex_) = 0;
  std::string metric_key_ METRICS_GUARDED_BY(mutex_);
  std::optional<size_t> metric_hash_ METRICS_GUARDED_BY(mutex_);  // of that, if it was needed
  PointTags tags_ METRICS_GUARDED_BY(mutex_);
  SeriesKey key_ METRICS_GUARDED_BY(mutex_);
  size_t label_bytes_ METRICS_GUARDED_BY(mutex_) = 0;  // of the tags on a line of the page
};

}  // namespace tidegate::agent

#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agent/collision_log.h"
#include "agent/exposition.h"
#include "agent/health.h"
#include "agent/name_claims.h"
#include "agent/packet_sink.h"
#include "agent/point_mapping.h"
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
// that number; what finds no room is refused and counted. Borrows `health`.
class SeriesTable : public PacketSink {
 public:
  struct Options {
    size_t max_series = 1000000;
    std::chrono::seconds ttl{300};
    bool label_pid = false;
    bool page = true;  // or else series are only counted, and no name can collide
  };
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  static constexpr size_t kBytesPerSeries = 2048;
  static constexpr size_t kPageBytesPerSeries = 512;

  SeriesTable(const Options& options, Health* health, CollisionLog::Reporter report,
              Clock clock = std::chrono::steady_clock::now);
  ~SeriesTable() override;

  void Handle(const Packet& packet, const ClientId& client) override;

  // Lets go of what is out of date. To be called every second or so; most calls do nothing.
  void Sweep();

  // Appends the lines of all series, family by family.
  void AppendPage(bool timestamps, std::string* page);

  // How many series were ever made.
  uint64_t made() const { return made_; }

 private:
  struct Layout;

  // What the series of one name and kind have in common.
  struct Metric {
    Kind kind;
    std::string name;
    uint32_t id;  // in the keys of its series
    std::vector<std::unique_ptr<Layout>> layouts;
  };

  struct Entry {
    Layout* layout = nullptr;
    uint32_t position = 0;        // in the layout's series
    Cell cell;                    // of the only column, without a detour through the heap
    std::unique_ptr<Cell[]> row;  // or else of all columns
    int64_t newest = INT64_MIN;   // timestamp
    std::chrono::steady_clock::time_point news;

    Cell* cells() { return row ? row.get() : &cell; }
    const Cell* cells() const { return row ? row.get() : &cell; }
  };
  using Node = std::pair<const std::string, Entry>;

  // What the series of a metric with the same columns have in common. Columns change with the
  // version of a service, rarely; the series then begin anew.
  struct Layout {
    Metric* metric;
    std::vector<std::string> columns;  // one without a name, if the metric has none
    std::vector<double> bounds;        // of histograms
    std::vector<FamilyPart> parts;
    std::vector<bool> shown;  // which of those; another metric can hold a name
    bool shown_whole;
    std::vector<Node*> series;
    size_t bytes;  // that it takes itself
  };

  // A part of a layout that is shown in a family.
  struct Source {
    const Layout* layout;
    size_t part;
  };
  using Families = std::map<std::string, std::vector<Source>>;

  // Where the next turn of a page begins.
  struct PagePosition {
    Families::const_iterator family;
    size_t source = 0;
    size_t series = 0;
    bool head = false;  // the family's head is written
  };

  void HandleBlock(const Packet& packet, const ClientId& client, const Block& block)
      METRICS_REQUIRES(mutex_);
  // Makes room for the record in work, and its layout if that is null. Null if it is refused.
  Node* Place(Kind kind, const Block& block, Layout** layout) METRICS_REQUIRES(mutex_);
  // Null if there is none yet.
  Layout* FindLayout(Kind kind, const Block& block) METRICS_REQUIRES(mutex_);
  Layout* AddLayout(Kind kind, const Block& block) METRICS_REQUIRES(mutex_);
  void MakeKey() METRICS_REQUIRES(mutex_);
  Node* FindSeries(const Metric& metric) METRICS_REQUIRES(mutex_);
  // Null if its labels are refused.
  Node* AddSeries(Layout* layout) METRICS_REQUIRES(mutex_);
  void Attach(Node* node, Layout* layout) METRICS_REQUIRES(mutex_);
  void Detach(Node* node) METRICS_REQUIRES(mutex_);
  void Update(const Series& record, int64_t timestamp, Entry* entry) METRICS_REQUIRES(mutex_);

  void ShowParts(Layout* layout) METRICS_REQUIRES(mutex_);
  bool ClaimNames(const FamilyPart& part) METRICS_REQUIRES(mutex_);
  void HideParts(Layout* layout) METRICS_REQUIRES(mutex_);

  void SweepIfDue() METRICS_REQUIRES(mutex_);
  void SweepSeries() METRICS_REQUIRES(mutex_);
  void SweepMetrics() METRICS_REQUIRES(mutex_);
  static size_t BytesOf(const Node& node);
  static size_t BytesOf(const Metric& metric);
  static size_t BytesOfCells(const Layout& layout);
  // For the record in work.
  bool HasRoom(const Block& block) METRICS_REQUIRES(mutex_);
  bool IsKnown() METRICS_REQUIRES(mutex_);
  // What the limit holds for.
  size_t Bytes() const METRICS_REQUIRES(mutex_);
  bool IsOutdated(const Entry& entry) const METRICS_REQUIRES(mutex_);
  void UpdateHealth() METRICS_REQUIRES(mutex_);

  // False at the end of the page.
  bool AppendTurn(PagePosition* position, SampleWriter* writer, std::string* page)
      METRICS_REQUIRES(mutex_);
  void AppendSeries(const Source& source, const Node& node, PagePosition* position,
                    SampleWriter* writer, std::string* page) const METRICS_REQUIRES(mutex_);

  const Options options_;
  const Clock clock_;
  Health* const health_;
  std::atomic<uint64_t> made_{0};
  std::atomic<int> waiting_{0};  // the decoder, for a turn of a page to end

  METRICS::Mutex page_mutex_;  // held for a whole page, outside of mutex_
  METRICS::Mutex mutex_;
  // By kind and name.
  std::unordered_map<std::string, std::unique_ptr<Metric>> metrics_ METRICS_GUARDED_BY(mutex_);
  std::unordered_map<std::string, Entry> series_ METRICS_GUARDED_BY(mutex_);  // by metric and tags
  Families families_ METRICS_GUARDED_BY(mutex_);
  NameClaims claims_ METRICS_GUARDED_BY(mutex_);
  size_t own_claim_bytes_ METRICS_GUARDED_BY(mutex_) = 0;  // of the agent's own numbers
  size_t bytes_ METRICS_GUARDED_BY(mutex_) = 0;            // without claims_
  size_t page_bytes_ METRICS_GUARDED_BY(mutex_) = 0;       // of the page, roughly
  uint32_t next_id_ METRICS_GUARDED_BY(mutex_) = 0;
  bool page_in_work_ METRICS_GUARDED_BY(mutex_) = false;  // nothing may be erased
  std::chrono::steady_clock::time_point now_ METRICS_GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point swept_ METRICS_GUARDED_BY(mutex_);

  // Of the block and the record in work.
  std::string metric_key_ METRICS_GUARDED_BY(mutex_);
  PointTags tags_ METRICS_GUARDED_BY(mutex_);
  std::string key_ METRICS_GUARDED_BY(mutex_);  // of the tags, with room for the metric's number
  size_t tag_bytes_ METRICS_GUARDED_BY(mutex_) = 0;
  size_t tag_count_ METRICS_GUARDED_BY(mutex_) = 0;
};

}  // namespace tidegate::agent

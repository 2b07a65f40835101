#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
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
#include "agent/recent_hashes.h"
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
    bool label_pid = false;
    bool page = true;  // or else series are only counted, and no name can collide
    // How far a point may lie ahead to be shown: while it is the newest, older ones change nothing.
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

  SeriesTable(const Options& options, Health* health, CollisionLog::Reporter report,
              Clock clock = Now);
  ~SeriesTable() override;

  void Handle(const Packet& packet, const ClientId& client) override;

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
  struct Layout;

  // What the series of one name and kind have in common.
  struct Metric {
    Kind kind;
    std::string name;
    uint64_t id;                     // in the keys of its series
    NameClaims<std::string> labels;  // as they are shown, by tags
    // By columns, as HashOf has them.
    std::unordered_multimap<size_t, std::unique_ptr<Layout>> layouts;
  };

  struct Entry {
    Layout* layout = nullptr;
    uint32_t position = 0;        // in the layout's series
    uint32_t label_bytes = 0;     // of its labels on a line of the page
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
    std::vector<uint32_t> sources;  // of those, the position in the family, or kHidden
    bool shown_whole = false;
    std::vector<Node*> series;
    size_t bytes = 0;                // that it takes itself
    size_t head_bytes = 0;           // on the page
    LinesSize series_size = {0, 0};  // of each series there
  };
  static constexpr uint32_t kHidden = UINT32_MAX;  // another metric holds the name

  // A part of a layout that is shown in a family.
  struct Source {
    Layout* layout;
    size_t part;
  };
  using Families = std::map<std::string, std::vector<Source>>;

  // Who holds a name on the page.
  struct Holder {
    const Metric* metric;  // null: the agent itself
    std::string column;    // as SourceOf takes it
    bool operator==(const Holder& other) const {
      return metric == other.metric && column == other.column;
    }
  };

  // The block in work.
  struct Target {
    Kind kind;
    const Block* block;
    Metric* metric;  // null: there is none yet
    Layout* layout;  // null: there is none yet
  };

  // Where the next turn of a page begins.
  struct PagePosition {
    Families::const_iterator family;
    size_t source = 0;
    size_t series = 0;
    bool head = false;  // the family's head is written
  };

  static Time Now();

  void HandleBlock(const Packet& packet, const ClientId& client, const Block& block)
      METRICS_REQUIRES(mutex_);
  // Makes room for the record in work, and for what the target lacks. `known` is its series, or
  // null. Null if the record is refused.
  Node* Place(Target* target, Node* known) METRICS_REQUIRES(mutex_);
  Target Find(const Block& block) METRICS_REQUIRES(mutex_);
  void AddLayout(Target* target) METRICS_REQUIRES(mutex_);
  // Fills in the sizes of a layout.
  static void Measure(Kind kind, const std::string& name, Layout* layout);
  // Of the values as they are shown, so that no two series look alike.
  void MakeKey() METRICS_REQUIRES(mutex_);
  void MakeOddKey() METRICS_REQUIRES(mutex_);
  void CompleteKey(const Metric& metric) METRICS_REQUIRES(mutex_);
  Node* FindSeries(const Metric& metric) METRICS_REQUIRES(mutex_);
  // Null if its labels are refused.
  Node* AddSeries(Layout* layout) METRICS_REQUIRES(mutex_);
  void Move(Node* node, Layout* layout) METRICS_REQUIRES(mutex_);
  // Does all of adding a series to a layout that needs memory. Returns its cells if they are many.
  std::unique_ptr<Cell[]> Prepare(Layout* layout) METRICS_REQUIRES(mutex_);
  void Attach(Node* node, Layout* layout, std::unique_ptr<Cell[]> row) METRICS_REQUIRES(mutex_);
  void Detach(Node* node) METRICS_REQUIRES(mutex_);
  void Update(const Series& record, int64_t timestamp, Entry* entry) METRICS_REQUIRES(mutex_);

  // False if one of the labels is another tag's. `claimed` is how many were not, however it ends.
  bool ClaimLabels(Metric* metric, size_t* claimed) METRICS_REQUIRES(mutex_);
  void ReleaseLabels(std::string_view key, size_t count, Metric* metric) METRICS_REQUIRES(mutex_);
  void ReportLabel(std::string_view metric, std::string_view holder, std::string_view tag)
      METRICS_REQUIRES(mutex_);
  void ClaimOwnNames() METRICS_REQUIRES(mutex_);
  void ShowParts(Layout* layout) METRICS_REQUIRES(mutex_);
  // False if a name of it is another one's.
  bool ShowPart(Layout* layout, size_t i) METRICS_REQUIRES(mutex_);
  bool ClaimNames(const Layout& layout, const FamilyPart& part, size_t* claimed)
      METRICS_REQUIRES(mutex_);
  void ReportName(const Holder& holder, const Holder& late) METRICS_REQUIRES(mutex_);
  void ReleaseNames(const FamilyPart& part, size_t count) METRICS_REQUIRES(mutex_);
  void HideParts(Layout* layout) METRICS_REQUIRES(mutex_);

  void SweepIfDue() METRICS_REQUIRES(mutex_);
  void SweepSeries() METRICS_REQUIRES(mutex_);
  void SweepMetrics() METRICS_REQUIRES(mutex_);
  static size_t BytesOf(const Node& node);
  static size_t BytesOf(const Metric& metric);
  static size_t BytesOfCells(const Layout& layout);
  static size_t PageBytesOf(const Entry& entry);
  // For the record in work.
  bool HasRoom(const Target& target, bool known) METRICS_REQUIRES(mutex_);
  // What the layout that the target lacks would take on the page at most, with one series.
  size_t ProductOf(const Target& target) METRICS_REQUIRES(mutex_);
  // Counts the record in work, and its series if that is new.
  void Refuse(Refusal reason) METRICS_REQUIRES(mutex_);
  void CountPoints(Refusal reason, size_t count);
  void CountSeries(Refusal reason);
  bool IsOutdated(const Entry& entry) const METRICS_REQUIRES(mutex_);
  void UpdateHealth() METRICS_REQUIRES(mutex_);

  void AppendTurns(bool timestamps, std::string* page);
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

  CollisionLog log_ METRICS_GUARDED_BY(mutex_);

  METRICS::Mutex page_mutex_;  // held for a whole page, outside of mutex_
  METRICS::Mutex mutex_;
  size_t bytes_ METRICS_GUARDED_BY(mutex_) = 0;       // of the table
  size_t page_bytes_ METRICS_GUARDED_BY(mutex_) = 0;  // of the page, at most
  // By kind and name.
  std::unordered_map<std::string, std::unique_ptr<Metric>> metrics_ METRICS_GUARDED_BY(mutex_);
  std::unordered_map<std::string, Entry> series_ METRICS_GUARDED_BY(mutex_);  // by tags and metric
  Families families_ METRICS_GUARDED_BY(mutex_);
  NameClaims<Holder> names_ METRICS_GUARDED_BY(mutex_);  // of the page
  RecentHashes refused_ METRICS_GUARDED_BY(mutex_);      // series
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
  std::string key_ METRICS_GUARDED_BY(mutex_);  // of the tags, with room for the metric's number
  size_t tag_bytes_ METRICS_GUARDED_BY(mutex_) = 0;
  std::string shown_ METRICS_GUARDED_BY(mutex_);       // of values that are not ASCII
  size_t label_bytes_ METRICS_GUARDED_BY(mutex_) = 0;  // of the tags on a line of the page

  // As it is claimed or released. Kept, so that what was claimed can be released without memory.
  std::string name_ METRICS_GUARDED_BY(mutex_);
};

}  // namespace tidegate::agent

#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <string>
#include <string_view>

#include "agent/batch.h"
#include "agent/destination_numbers.h"
#include "agent/report.h"
#include "agent/spool_folder.h"
#include "agent/spool_segment.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

struct SpoolOptions {
  std::string folder;                             // empty: there is no spool
  std::string parent;                             // to be made first; empty: need not be
  uint64_t bytes = uint64_t{1} << 30;             // of all files
  std::chrono::milliseconds retry{1000};          // after a failure of the disk
  std::chrono::milliseconds log_interval{60000};  // between lines about a full spool
  std::string_view magic = kSegmentMagic;         // of its segments; others are left alone
};

// Packed batches on a disk, oldest first, in segments of a sixteenth of the bound or 8 MiB. Above
// the bound the oldest segment goes, and its points are counted. A segment is removed once all its
// batches are gone; until then each of those is marked, so that the next agent does not send it
// again. Segments are flushed to the disk when they are full and by Close.
//
// A part that cannot be read does not affect the rest. It is counted, with its points
// where they are known. Each trouble of the disk is reported once until it is over.
//
// Threads: any; each waits for the disk, and for another one that does, but not in `empty`.
// Borrows `numbers` and `health`.
class Spool {
 public:
  Spool(SpoolOptions options, DestinationNumbers* numbers, Health* health, Report report);

  const SpoolOptions& options() const { return options_; }

  // Opens the folder and finds what an earlier agent left there. True if that is done, now or
  // before. Until then nothing is in the spool.
  bool Open();

  // Adds a packed batch. False if it could not be written. One that is larger than the bound is
  // dropped and counted.
  bool Append(const Batch& batch);

  // The oldest batch, which stays until Settle; an empty list if there is none, or as long as there
  // is no descriptor for its file.
  // REQUIRES: the one before was settled.
  Batches Take();

  // Says whether the batch that Take gave is gone. If not, Take will give it again, but if it had
  // to make room meanwhile, it is dropped and counted now.
  void Settle(bool gone);

  bool empty() const { return waiting_ == 0; }

  // Has everything on the disk, and lets the next agent have the folder.
  void Close();

 private:
  struct Segment {
    uint64_t number = 0;
    uint64_t size = 0;
    std::deque<SpoolRecord> waiting;
    UniqueFd file;  // of the oldest and of the one that is written, if they have been needed
  };

  void Load() METRICS_REQUIRES(mutex_);
  void LoadSegment(uint64_t number, size_t* left_alone) METRICS_REQUIRES(mutex_);
  void MakeRoom(uint64_t size) METRICS_REQUIRES(mutex_);
  bool Write(const Batch& batch) METRICS_REQUIRES(mutex_);
  bool StartSegment() METRICS_REQUIRES(mutex_);
  void EndSegment() METRICS_REQUIRES(mutex_);
  const UniqueFd& FileOf(Segment* segment) const METRICS_REQUIRES(mutex_);
  bool ReadBody(Segment* segment, std::string* body) const METRICS_REQUIRES(mutex_);
  void PopRecord() METRICS_REQUIRES(mutex_);
  void RemoveOldest() METRICS_REQUIRES(mutex_);
  void CountFull(uint64_t points) METRICS_REQUIRES(mutex_);
  void Damaged(uint64_t pieces, uint64_t points, const std::string& what) METRICS_REQUIRES(mutex_);
  bool Failed(const char* what, const std::string& why) METRICS_REQUIRES(mutex_);
  void Works() METRICS_REQUIRES(mutex_);
  void Tell(std::initializer_list<std::string_view> texts);
  void Publish() METRICS_REQUIRES(mutex_);

  const SpoolOptions options_;
  const uint64_t segment_bytes_;
  DestinationNumbers* const numbers_;
  Health* const health_;
  const Report report_;
  std::atomic<size_t> waiting_{0};  // records

  METRICS::Mutex mutex_;
  SpoolFolder folder_ METRICS_GUARDED_BY(mutex_);
  // Oldest first; none but the newest is without a record.
  std::deque<Segment> segments_ METRICS_GUARDED_BY(mutex_);
  bool writing_ METRICS_GUARDED_BY(mutex_) = false;  // to the newest of them
  uint64_t next_number_ METRICS_GUARDED_BY(mutex_) = 1;
  uint64_t bytes_ METRICS_GUARDED_BY(mutex_) = 0;
  uint64_t points_ METRICS_GUARDED_BY(mutex_) = 0;
  bool taken_ METRICS_GUARDED_BY(mutex_) = false;         // the oldest record has been handed out,
  bool taken_lost_ METRICS_GUARDED_BY(mutex_) = false;    // and its segment has gone since,
  uint64_t taken_points_ METRICS_GUARDED_BY(mutex_) = 0;  // with so many points
  std::string trouble_ METRICS_GUARDED_BY(mutex_);        // that was reported, until it is over
  std::string last_damage_ METRICS_GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point next_full_line_ METRICS_GUARDED_BY(mutex_);
  uint64_t dropped_ METRICS_GUARDED_BY(mutex_) = 0;  // points, since the last line about them
};

}  // namespace tidegate::agent

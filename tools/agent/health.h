#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "agent/packet_reader.h"

namespace tidegate::agent {

// Why a message was refused. Fixed and few, as they become the values of a label.
enum class DecodeFailure { kTooLong, kForeign, kVersion, kMalformed };
constexpr size_t kDecodeFailures = 4;

// What refused a message of which ReadPacket said `error`.
DecodeFailure FailureOf(const ReadError& error);

// Why the table of series did not take a point: it was full, another series holds the name, the
// packet took too much work, or its time is too far in the future.
enum class Refusal { kLimit, kCollision, kWork, kAhead };
constexpr size_t kRefusals = 4;

// Why the merging stage did not take a point: it was full, the point has other columns than its
// series, or the packet took too much work.
enum class MergeRefusal { kLimit, kColumns, kWork };
constexpr size_t kMergeRefusals = 3;

// The agent's numbers on itself: the one list that the page of metrics, the forwarded data and the
// last line of the log are made from.
//
// Threads: every number is changed by whoever knows it and read by anyone, each on its own; two of
// them need not fit each other at every moment. Nothing is allocated. Counters never fall.
struct Health {
  using Number = std::atomic<uint64_t>;

  // Where a sample's value comes from; it carries one label at most.
  struct Sample {
    std::string_view name;  // fit for every receiver, counters end in "_total"
    std::string_view help;
    bool counter;                  // or else a gauge
    std::string_view label;        // empty: none
    std::string_view label_value;  // printable ASCII
    uint64_t value;
  };

  // By the reading thread.
  Number clients{0};       // connected now
  Number bytes{0};         // of all messages, whatever they held
  Number dropped_full{0};  // messages that made room in a full queue

  // By any thread: each time something was lost, and counted as far as it can be told.
  Number out_of_memory{0};

  // By the reading and the decoding thread.
  Number queued_packets{0};
  Number queued_bytes{0};
  Number dropped_shutdown{0};  // messages that were left when the agent ended
  Number dropped_memory{0};    // messages for which there was no memory

  // By the decoding thread.
  Number packets{0};  // decoded whole
  Number points{0};   // series records of those
  std::array<Number, kDecodeFailures> refused{};
  Number series{0};        // in the table now
  Number series_bytes{0};  // that they take
  std::array<Number, kRefusals> refused_points{};
  // Each once; of those reasons that are one of a series: kLimit and kCollision.
  std::array<Number, 2> refused_series{};
  Number slots{0};             // of processes, those included that are held
  Number slotless_packets{0};  // of processes for which there was none
  Number shared_series{0};     // that two processes report
  Number unprinted_points{0};  // that standard output did not take whole, or not in time

  Number merge_series{0};       // that are merged
  Number merge_bytes{0};        // that they take
  Number merge_held_points{0};  // merged ones that are not handed on yet
  Number merged_points{0};      // handed on
  Number merge_late_points{0};  // that came after their time was handed on
  Number merge_left_out_percentiles{0};
  std::array<Number, kMergeRefusals> merge_refused_points{};

  // By the HTTP side.
  Number http_cut_slow{0};      // clients that took an answer too slowly
  Number http_cut_crowded{0};   // clients that made room for others
  Number http_failed_pages{0};  // for lack of memory

  // By the forwarder.
  Number forward_queue_points{0};
  Number forward_queue_bytes{0};
  Number forwarded_points{0};
  Number forward_dropped_full{0};        // points
  Number forward_dropped_rejected{0};    // points that the server did not want
  Number forward_dropped_empty{0};       // points that make no line: no number in it, or too long
  Number forward_dropped_shutdown{0};    // points that were left when the agent ended
  Number forward_dropped_memory{0};      // points for which there was no memory
  Number forward_dropped_spool_full{0};  // points that made room in the spool
  Number forward_dropped_spool_damaged{0};  // points that could not be read from it
  Number forward_retried_points{0};
  Number forward_batches{0};
  Number forward_spool_points{0};
  Number forward_spool_bytes{0};     // of its files
  Number forward_spool_failures{0};  // of opening, writing and flushing
  Number forward_spool_damaged{0};   // files and parts of files

  const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();

  uint64_t Errors() const;
  uint64_t DroppedPackets() const;
  uint64_t ForwardDropped() const;
  // What is in the table and in the queues.
  uint64_t BytesInUse() const {
    return queued_bytes + series_bytes + merge_bytes + forward_queue_bytes;
  }

  // Hands out every number as a sample; those of one name follow each other.
  void ForEach(const std::function<void(const Sample&)>& handle) const;
};

}  // namespace tidegate::agent

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "agent/health_numbers.h"
#include "agent/packet_reader.h"
#include "agent/rule_counts.h"

namespace tidegate::agent {

// Why a message was refused. Fixed and few, as they become the values of a label.
enum class DecodeFailure { kTooLong, kForeign, kVersion, kMalformed };
constexpr size_t kDecodeFailures = 4;

// The reason to refuse a message for which ReadPacket gave `error`.
DecodeFailure FailureOf(const ReadError& error);

// Why the table of series did not take a point. It was full; another series holds the name; the
// packet took too much work; or its time is too far in the future.
enum class Refusal { kLimit, kCollision, kWork, kAhead };
constexpr size_t kRefusals = 4;

// Why the merging stage did not take a point: it was full, the point has other columns than its
// series, or the packet took too much work.
enum class MergeRefusal { kLimit, kColumns, kWork };
constexpr size_t kMergeRefusals = 3;

// The agent's numbers on itself: the one list that the page of metrics, the forwarded data and the
// last line of the log are made from. Each is declared once, with its name and its text, in the
// order of the page. Numbers that exist once for each of several things, as destinations, follow in
// lists of their own.
//
// Threads: every number is changed by the one who knows it and read by anyone, each on its own; two
// of them need not fit each other at every moment. Nothing is allocated but by Add, which comes
// before all other threads. Counters never fall.
class Health : public NumberList {
 public:
  using Number = HealthNumber;
  using Type = HealthNumber::Type;
  template <size_t size>
  using Reasons = ReasonNumbers<size>;

  // One number under its name, with two labels at most.
  struct Sample {
    std::string_view name;  // fit for every receiver, counters end in "_total"
    std::string_view help;
    bool counter;                  // false: a gauge
    std::string_view label;        // empty: none
    std::string_view label_value;  // printable ASCII
    uint64_t value;
    std::string_view owner = {};  // a second label, such as "destination"; empty: none
    std::string_view owner_value = {};
  };

  Health() = default;
  Health(const Health&) = delete;
  Health& operator=(const Health&) = delete;

  uint64_t Errors() const { return refused.Sum(); }
  uint64_t DroppedPackets() const { return dropped_full + dropped_shutdown + dropped_memory; }
  uint64_t ForwardDropped() const { return SumOfLists(kUnforwarded); }
  // Of the table and of the queues.
  uint64_t BytesInUse() const {
    return queued_bytes + series_bytes + history_bytes + merge_bytes + SumOfLists(kHeldBytes) +
           SumOfLists(kWaitingBytes);
  }

  // Adds the numbers of one thing, with the label `owner` and that value. Those of all lists with
  // one label have the same numbers in the same order. Borrows all three.
  void Add(std::string_view owner, std::string_view value, const NumberList* numbers) {
    lists_.push_back({owner, value, numbers});
  }

  // Hands out every number as a sample; those of one name follow each other.
  void ForEach(const std::function<void(const Sample&)>& handle) const;

 private:
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();

  struct OwnedList {
    std::string_view owner;
    std::string_view value;
    const NumberList* numbers;
  };
  void HandOut(const Number& number, const OwnedList& of,
               const std::function<void(const Sample&)>& handle) const;
  void ForEachOwned(size_t first, const std::function<void(const Sample&)>& handle) const;
  uint64_t SumOfLists(std::string_view name) const;

  std::vector<OwnedList> lists_;

  static constexpr Type kGauge = Type::kGauge;
  static constexpr Type kCounter = Type::kCounter;
  static constexpr std::string_view kLost = "tidegate_agent_dropped_packets_total";
  static constexpr std::string_view kLostHelp = "Messages that were not decoded.";
  static constexpr std::string_view kCut = "tidegate_agent_http_cut_clients_total";
  static constexpr std::string_view kCutHelp = "HTTP clients cut off before they had their answer.";

 public:
  // Of destinations.
  static constexpr std::string_view kHeldBytes = "tidegate_agent_forward_held_bytes";
  static constexpr std::string_view kWaitingBytes = "tidegate_agent_forward_queue_bytes";
  static constexpr std::string_view kUnforwarded = "tidegate_agent_forward_dropped_points_total";

  // By the reading thread.
  Number clients{this, kGauge, "tidegate_agent_clients", "Connected clients."};
  Number bytes{this, kCounter, "tidegate_agent_received_bytes_total", "Bytes of all messages."};

  // By the decoding thread.
  Number packets{this, kCounter, "tidegate_agent_packets_total", "Packets decoded."};
  Number points{this, kCounter, "tidegate_agent_points_total", "Points decoded."};
  Reasons<kDecodeFailures> refused{this,
                                   "tidegate_agent_decode_errors_total",
                                   "Messages refused.",
                                   {"too_long", "foreign", "version", "malformed"}};

  // By the reading and the decoding thread.
  Number queued_packets{this, kGauge, "tidegate_agent_queue_packets",
                        "Messages that wait to be decoded."};
  Number queued_bytes{this, kGauge, "tidegate_agent_queue_bytes", "Bytes of those."};
  Number dropped_full{this, kCounter, kLost, kLostHelp, "full"};
  Number dropped_shutdown{this, kCounter, kLost, kLostHelp, "shutdown"};
  Number dropped_memory{this, kCounter, kLost, kLostHelp, "memory"};

  // By any thread: each time something was lost, and counted as far as it can be told.
  Number out_of_memory{this, kCounter, "tidegate_agent_out_of_memory_total",
                       "Times that memory ran out."};

  // By the decoding thread.
  Number unprinted_points{this, kCounter, "tidegate_agent_unprinted_points_total",
                          "Points that standard output did not take whole, or not in time."};
  Number series{this, kGauge, "tidegate_agent_series", "Series in the table."};
  Number series_bytes{this, kGauge, "tidegate_agent_series_bytes", "Bytes that they take."};
  Reasons<kRefusals> refused_points{this,
                                    "tidegate_agent_refused_points_total",
                                    "Points that the table did not take.",
                                    {"limit", "collision", "work", "ahead"}};
  // Of those reasons that are one of a series: kLimit and kCollision.
  Reasons<2> refused_series{this,
                            "tidegate_agent_refused_series_total",
                            "Series that are not shown, each once.",
                            {"limit", "collision"}};

  // Points by rule: tidegate_agent_rule_matched_points_total and ..._rule_dropped_points_total.
  RuleCounts rules;

  Number history_points{this, kGauge, "tidegate_agent_history_points",
                        "Points that are kept for the page."};
  Number history_bytes{this, kGauge, "tidegate_agent_history_bytes", "Bytes that they take."};
  Number history_dropped_points{this, kCounter, "tidegate_agent_history_dropped_points_total",
                                "Points that were not kept for the time of --history."};

  Number merge_series{this, kGauge, "tidegate_agent_merge_series", "Series that are merged."};
  Number merge_bytes{this, kGauge, "tidegate_agent_merge_bytes", "Bytes that they take."};
  Number merge_held_points{this, kGauge, "tidegate_agent_merge_held_points",
                           "Merged points that wait for further processes."};
  Number merged_points{this, kCounter, "tidegate_agent_merged_points_total", "Merged points."};
  Number merge_late_points{this, kCounter, "tidegate_agent_merge_late_points_total",
                           "Points that came after those of their time had been merged."};
  Number merge_left_out_percentiles{
      this, kCounter, "tidegate_agent_merge_left_out_percentiles_total",
      "Percentiles that were left out, as several processes reported them."};
  Reasons<kMergeRefusals> merge_refused_points{this,
                                               "tidegate_agent_merge_refused_points_total",
                                               "Points that were not merged.",
                                               {"limit", "columns", "work"}};

  Number slots{this, kGauge, "tidegate_agent_slots",
               "Numbers that processes have, or have just left."};
  Number slotless_packets{this, kCounter, "tidegate_agent_slotless_packets_total",
                          "Packets of processes without a number."};
  Number shared_series{this, kCounter, "tidegate_agent_shared_series_total",
                       "Series that several processes report."};

  // By the HTTP side.
  Number http_cut_slow{this, kCounter, kCut, kCutHelp, "slow"};
  Number http_cut_crowded{this, kCounter, kCut, kCutHelp, "crowded"};
  Number http_failed_pages{this, kCounter, "tidegate_agent_http_failed_pages_total",
                           "Pages and answers that could not be made."};
};

}  // namespace tidegate::agent

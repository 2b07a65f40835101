#include "agent/health.h"

#include <iterator>

namespace tidegate::agent {
namespace {

constexpr std::string_view kFailureNames[] = {"too_long", "foreign", "version", "malformed"};
static_assert(std::size(kFailureNames) == kDecodeFailures);

constexpr std::string_view kRefusalNames[] = {"limit", "collision", "work", "ahead"};
static_assert(std::size(kRefusalNames) == kRefusals);

constexpr std::string_view kMergeRefusalNames[] = {"limit", "columns", "work"};
static_assert(std::size(kMergeRefusalNames) == kMergeRefusals);

// Offsets in the header.
constexpr size_t kMagicOffset = 0;
constexpr size_t kVersionOffset = 8;

uint64_t ValueOf(const Health::Number& number) { return number.load(std::memory_order_relaxed); }

}  // namespace

DecodeFailure FailureOf(const ReadError& error) {
  if (error.offset == kMagicOffset) return DecodeFailure::kForeign;
  return error.offset == kVersionOffset ? DecodeFailure::kVersion : DecodeFailure::kMalformed;
}

uint64_t Health::Errors() const {
  uint64_t sum = 0;
  for (const Number& number : refused) sum += number.load(std::memory_order_relaxed);
  return sum;
}

uint64_t Health::DroppedPackets() const { return dropped_full + dropped_shutdown + dropped_memory; }

uint64_t Health::ForwardDropped() const {
  return forward_dropped_full + forward_dropped_rejected + forward_dropped_empty +
         forward_dropped_shutdown + forward_dropped_memory + forward_dropped_spool_full +
         forward_dropped_spool_damaged;
}

void Health::ForEach(const std::function<void(const Sample&)>& handle) const {
  const auto uptime =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
  handle({"tidegate_agent_info", "Always 1; the label is the version of the agent.", false,
          "version", TIDEGATE_VERSION, 1});
  handle({"tidegate_agent_uptime_seconds",
          "Whole seconds since the start.",
          false,
          {},
          {},
          static_cast<uint64_t>(uptime.count())});

  const auto gauge = [&](std::string_view name, std::string_view help, const Number& number) {
    handle({name, help, false, {}, {}, ValueOf(number)});
  };
  const auto counter = [&](std::string_view name, std::string_view help, const Number& number) {
    handle({name, help, true, {}, {}, ValueOf(number)});
  };
  gauge("tidegate_agent_clients", "Connected clients.", clients);
  counter("tidegate_agent_received_bytes_total", "Bytes of all messages.", bytes);
  counter("tidegate_agent_packets_total", "Packets decoded.", packets);
  counter("tidegate_agent_points_total", "Points decoded.", points);
  for (size_t i = 0; i < kDecodeFailures; ++i) {
    handle({"tidegate_agent_decode_errors_total", "Messages refused.", true, "reason",
            kFailureNames[i], ValueOf(refused[i])});
  }
  gauge("tidegate_agent_queue_packets", "Messages that wait to be decoded.", queued_packets);
  gauge("tidegate_agent_queue_bytes", "Bytes of those.", queued_bytes);
  constexpr std::string_view kLost = "tidegate_agent_dropped_packets_total";
  constexpr std::string_view kLostHelp = "Messages that were not decoded.";
  handle({kLost, kLostHelp, true, "reason", "full", ValueOf(dropped_full)});
  handle({kLost, kLostHelp, true, "reason", "shutdown", ValueOf(dropped_shutdown)});
  handle({kLost, kLostHelp, true, "reason", "memory", ValueOf(dropped_memory)});
  counter("tidegate_agent_out_of_memory_total", "Times that memory ran out.", out_of_memory);
  counter("tidegate_agent_unprinted_points_total",
          "Points that standard output did not take whole, or not in time.", unprinted_points);
  gauge("tidegate_agent_series", "Series in the table.", series);
  gauge("tidegate_agent_series_bytes", "Bytes that they take.", series_bytes);
  for (size_t i = 0; i < kRefusals; ++i) {
    handle({"tidegate_agent_refused_points_total", "Points that found no place in the table.", true,
            "reason", kRefusalNames[i], ValueOf(refused_points[i])});
  }
  for (size_t i = 0; i < refused_series.size(); ++i) {
    handle({"tidegate_agent_refused_series_total", "Series that are not shown, each once.", true,
            "reason", kRefusalNames[i], ValueOf(refused_series[i])});
  }
  gauge("tidegate_agent_merge_series", "Series that are merged.", merge_series);
  gauge("tidegate_agent_merge_bytes", "Bytes that they take.", merge_bytes);
  gauge("tidegate_agent_merge_held_points", "Merged points that wait for further processes.",
        merge_held_points);
  counter("tidegate_agent_merged_points_total", "Merged points.", merged_points);
  counter("tidegate_agent_merge_late_points_total",
          "Points that came after those of their time had been merged.", merge_late_points);
  counter("tidegate_agent_merge_left_out_percentiles_total",
          "Percentiles that were left out, as several processes reported them.",
          merge_left_out_percentiles);
  for (size_t i = 0; i < kMergeRefusals; ++i) {
    handle({"tidegate_agent_merge_refused_points_total", "Points that were not merged.", true,
            "reason", kMergeRefusalNames[i], ValueOf(merge_refused_points[i])});
  }

  gauge("tidegate_agent_slots", "Numbers that processes have, or have just left.", slots);
  counter("tidegate_agent_slotless_packets_total", "Packets of processes without a number.",
          slotless_packets);
  counter("tidegate_agent_shared_series_total", "Series that several processes report.",
          shared_series);

  constexpr std::string_view kCut = "tidegate_agent_http_cut_clients_total";
  constexpr std::string_view kCutHelp = "HTTP clients cut off before they had their answer.";
  handle({kCut, kCutHelp, true, "reason", "slow", ValueOf(http_cut_slow)});
  handle({kCut, kCutHelp, true, "reason", "crowded", ValueOf(http_cut_crowded)});
  counter("tidegate_agent_http_failed_pages_total", "Pages of metrics that could not be made.",
          http_failed_pages);

  gauge("tidegate_agent_forward_queue_points", "Points that wait to be forwarded.",
        forward_queue_points);
  gauge("tidegate_agent_forward_queue_bytes", "Bytes of those.", forward_queue_bytes);
  counter("tidegate_agent_forwarded_points_total", "Points that the database took.",
          forwarded_points);
  constexpr std::string_view kDropped = "tidegate_agent_forward_dropped_points_total";
  constexpr std::string_view kDroppedHelp = "Points that never reached the database.";
  handle({kDropped, kDroppedHelp, true, "reason", "full", ValueOf(forward_dropped_full)});
  handle({kDropped, kDroppedHelp, true, "reason", "rejected", ValueOf(forward_dropped_rejected)});
  handle({kDropped, kDroppedHelp, true, "reason", "empty", ValueOf(forward_dropped_empty)});
  handle({kDropped, kDroppedHelp, true, "reason", "shutdown", ValueOf(forward_dropped_shutdown)});
  handle({kDropped, kDroppedHelp, true, "reason", "memory", ValueOf(forward_dropped_memory)});
  handle(
      {kDropped, kDroppedHelp, true, "reason", "spool_full", ValueOf(forward_dropped_spool_full)});
  handle({kDropped, kDroppedHelp, true, "reason", "spool_damaged",
          ValueOf(forward_dropped_spool_damaged)});
  counter("tidegate_agent_forward_retried_points_total",
          "Points whose sending failed and is tried again.", forward_retried_points);
  counter("tidegate_agent_forward_batches_total", "Requests that the database took.",
          forward_batches);
  gauge("tidegate_agent_forward_spool_points", "Points that wait in the spool.",
        forward_spool_points);
  gauge("tidegate_agent_forward_spool_bytes", "Bytes of its files.", forward_spool_bytes);
  counter("tidegate_agent_forward_spool_failures_total",
          "Times that the spool could not be opened, written or flushed.", forward_spool_failures);
  counter("tidegate_agent_forward_spool_damaged_total",
          "Files and parts of files in the spool that could not be read.", forward_spool_damaged);
}

}  // namespace tidegate::agent

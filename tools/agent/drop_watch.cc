#include "agent/drop_watch.h"

#include "agent/kinds.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

constexpr std::string_view kTooMuch = "docs/agent.md#when-it-is-too-much";
constexpr std::string_view kMerge = "docs/agent.md#one-series-for-all-processes";
constexpr std::string_view kNames = "docs/agent.md#names-and-labels";
constexpr std::string_view kProcesses = "docs/agent.md#processes";
constexpr std::string_view kOutput = "docs/agent.md#standard-output-and-the-log";
constexpr std::string_view kForwarding =
    "docs/forwarding.md#when-the-database-is-slow-away-or-refuses-points";
constexpr std::string_view kSpool = "docs/forwarding.md#a-spool-on-disk";

// Of one number, or of one reason of it.
struct Row {
  std::string_view name;  // without what all of them begin with
  std::string_view reason;
  std::string_view help;  // empty: the number's own
  std::string_view href;
};
constexpr std::string_view kBegin = "tidegate_agent_";
constexpr Row kRows[] = {
    {"decode_errors_total", "too_long", "A message was longer than 1 MiB.", kTooMuch},
    {"decode_errors_total", "foreign", "Something that is no packet came on the socket.", kTooMuch},
    {"decode_errors_total", "version", "A packet had a version that this agent does not know.",
     kTooMuch},
    {"decode_errors_total", "malformed", "A packet did not agree with itself.", kTooMuch},
    {"dropped_packets_total", "full",
     "Packets came faster than they were decoded: raise queue-bytes, or send less.", kTooMuch},
    {"dropped_packets_total", "shutdown", "Packets were left when the agent ended.", kTooMuch},
    {"dropped_packets_total", "memory", "There was no memory for packets.", kTooMuch},
    {"out_of_memory_total", "", "Memory ran out: raise MemoryMax, or lower max-series.", kTooMuch},
    {"unprinted_points_total", "", "Standard output did not take all points.", kOutput},
    {"refused_points_total", "limit",
     "Points of new series found no room in the table: raise max-series, or use fewer series.",
     kTooMuch},
    {"refused_points_total", "collision", "Another metric or tag has the name on /metrics.",
     kNames},
    {"refused_points_total", "work", "A packet had more than the table does for one packet.",
     kTooMuch},
    {"refused_points_total", "ahead",
     "Points were later than the host's clock by more than max-ahead: set the clocks.", kTooMuch},
    {"refused_series_total", "limit", "Series found no room in the table.", kTooMuch},
    {"refused_series_total", "collision", "Series are not shown, as another one has their name.",
     kNames},
    {"merge_late_points_total", "", "", kMerge},
    {"merge_refused_points_total", "", "", kMerge},
    {"slotless_packets_total", "", "There was no number left for a process.", kProcesses},
    {"shared_series_total", "",
     "Several processes report the same series at one time: give each a tag of its own.",
     kProcesses},
    {"http_cut_clients_total", "", "", "docs/agent.md#the-agent"},
    {"http_failed_pages_total", "", "", "docs/agent.md#the-agent"},
    {"history_dropped_points_total", "", "", "docs/page_api.md#history"},
    {"forward_dropped_points_total", "full",
     "The queue was full while the database was away or too slow: raise the queue, or use a spool.",
     kForwarding},
    {"forward_dropped_points_total", "rejected", "The database refused the points.", kForwarding},
    {"forward_dropped_points_total", "empty", "Points that the database's form cannot carry.",
     kForwarding},
    {"forward_dropped_points_total", "spool_full", "The spool was full.", kSpool},
    {"forward_dropped_points_total", "spool_damaged", "Files of the spool could not be read.",
     kSpool},
    {"forward_dropped_points_total", "late",
     "Points came after later ones of their series had been sent.", kForwarding},
    {"forward_dropped_points_total", "series",
     "There was no room for the series, or another one has its name.", kForwarding},
    {"forward_dropped_points_total", "", "", kForwarding},
    {"forward_spool_failures_total", "", "", kSpool},
    {"forward_spool_damaged_total", "", "", kSpool},
};

const Row* FindRow(std::string_view name, std::string_view reason) {
  if (name.substr(0, kBegin.size()) != kBegin) return nullptr;
  name.remove_prefix(kBegin.size());
  for (const Row& row : kRows) {
    if (row.name == name && (row.reason.empty() || row.reason == reason)) return &row;
  }
  return nullptr;
}

std::string KeyOf(const Health::Sample& sample) {
  return std::string(sample.name)
      .append(" ")
      .append(sample.owner_value)
      .append(" ")
      .append(sample.label_value);
}

}  // namespace

bool IsDrop(const Health::Sample& sample) {
  return FindRow(sample.name, sample.label_value) != nullptr;
}

void DropWatch::Look(int64_t now_ms) {
  const WriteGuard lock(mutex_);
  health_->ForEach([&](const Health::Sample& sample) METRICS_REQUIRES(mutex_) {
    if (sample.value == 0 || !IsDrop(sample)) return;
    Seen& seen = seen_[KeyOf(sample)];
    if (seen.value == sample.value) return;
    seen = {sample.value, now_ms};
  });
}

std::vector<DropWatch::Drop> DropWatch::All() const {
  std::vector<Drop> drops;
  const WriteGuard lock(mutex_);
  health_->ForEach([&](const Health::Sample& sample) METRICS_REQUIRES(mutex_) {
    const Row* const row = FindRow(sample.name, sample.label_value);
    if (sample.value == 0 || row == nullptr) return;
    const auto seen = seen_.find(KeyOf(sample));
    drops.push_back({sample, seen == seen_.end() ? 0 : seen->second.last_ms,
                     row->help.empty() ? sample.help : row->help, row->href});
  });
  return drops;
}

}  // namespace tidegate::agent

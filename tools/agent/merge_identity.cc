#include "agent/merge_identity.h"

#include <algorithm>
#include <optional>
#include <unordered_set>
#include <utility>

#include "agent/heap_bytes.h"
#include "agent/series_layout.h"

namespace tidegate::agent {
namespace {

// After all processes have begun to report a time, for the rest of their packets.
constexpr std::chrono::seconds kSettle(1);

// For a process that only lost its connection.
constexpr std::chrono::minutes kForgetProcess(5);

// With its node and bucket.
constexpr size_t kProcessBytes = 96;

size_t BytesOf(const MergedLayout& layout) {
  size_t bytes = sizeof(layout) + 4 * kHeapOverhead +
                 layout.rules.size() * (sizeof(MergeRule) + sizeof(uint32_t)) +
                 layout.fields.size() * sizeof(Field);
  for (const Field& field : layout.fields) bytes += HeapBytes(field.name);
  return bytes;
}

size_t BytesOf(const MergedMetric& metric) {
  return sizeof(metric) + 2 * HeapBytes(metric.name.name) + 6 * kHeapOverhead;
}

}  // namespace

MergedLayout* MergedMetric::LayoutOf(const Block& block, GaugeMerge gauge, size_t* bytes) {
  const size_t hash = HashOfColumns(block);
  const auto [first, end] = layouts.equal_range(hash);
  const auto same = std::find_if(first, end, [&](const auto& layout) {
    return std::equal(layout.second->fields.begin(), layout.second->fields.end(),
                      block.fields.begin(), block.fields.end(),
                      [](const Field& a, const Field& b) { return a.name == b.name; });
  });
  if (same != end) {
    same->second->gauge = gauge;  // rules may have changed
    return same->second.get();
  }
  const bool rate = name.form == MergedName::Form::kMeterRate;
  auto layout =
      std::make_unique<MergedLayout>(block, kind, RulesOf(rate ? Kind::kRate : kind, block), gauge);
  MergedLayout* const made = layouts.emplace(hash, std::move(layout))->second.get();
  *bytes += BytesOf(*made);
  return made;
}

void MergedMetric::SweepLayouts(size_t* bytes) {
  if (layouts.size() < 2) return;
  std::unordered_set<const MergedLayout*> used;
  for (const auto& [key, entry] : series) used.insert(entry.series.layout());
  for (auto next = layouts.begin(); next != layouts.end();) {
    if (used.count(next->second.get()) != 0) {
      ++next;
      continue;
    }
    *bytes -= BytesOf(*next->second);
    next = layouts.erase(next);
  }
}

MergeIdentity::MergeIdentity(const Packet& packet, const ClientId& client) : client_(client) {
  header_.version = packet.version;
  header_.format_word = packet.format_word;
  header_.tenant = packet.tenant;
  header_.tenant_tags = packet.tenant_tags;
  header_.sdk_version = packet.sdk_version;
}

size_t MergeIdentity::bytes() const {
  size_t bytes = sizeof(*this) + 2 * HeapBytes(header_.tenant) + HeapBytes(header_.sdk_version);
  for (const Tag& tag : header_.tenant_tags) {
    bytes += sizeof(tag) + 2 * (HeapBytes(tag.key) + HeapBytes(tag.value));
  }
  return bytes;
}

void MergeIdentity::HasReported(const ProcessId& process, int64_t timestamp, bool full,
                                size_t* bytes) {
  const auto found = processes_.find(process);
  if (found != processes_.end()) {
    int64_t& newest = found->second.newest;
    newest = IsSetBack(newest, timestamp) ? timestamp : std::max(newest, timestamp);
    found->second.gone = SteadyTime();
  } else if (!full) {
    processes_.emplace(process, Process{timestamp, SteadyTime()});
    *bytes += kProcessBytes;
  }
}

size_t MergeIdentity::BytesOfSeries(const KeyedMergedSeries& keyed) {
  return sizeof(keyed) - sizeof(MergedSeries) + keyed.second.series.bytes() +
         HeapBytes(keyed.first) + 2 * kHeapOverhead;
}

MergedMetric* MergeIdentity::MetricOf(MergedName::Form form, const Block& block,
                                      std::string_view name, size_t* bytes) {
  const Kind kind = form == MergedName::Form::kTimerBlocks ? Kind::kTimerRow : KindOf(block);
  key_.assign(
      {static_cast<char>(form), static_cast<char>(kind), static_cast<char>(block.wire_type)});
  key_ += name;
  const auto found = metrics_.find(key_);
  if (found != metrics_.end()) return found->second.get();
  auto metric = std::make_unique<MergedMetric>(
      MergedMetric{next_id_, {form, block.wire_type, std::string(name)}, kind, {}, {}});
  MergedMetric* const made = metrics_.emplace(key_, std::move(metric)).first->second.get();
  ++next_id_;
  *bytes += BytesOf(*made);
  return made;
}

void MergeIdentity::Hold(int64_t timestamp, MergedMetric* metric, KeyedMergedSeries* keyed,
                         SteadyTime now, std::chrono::nanoseconds ahead,
                         std::chrono::nanoseconds delay) {
  const auto [found, is_new] = times_.try_emplace(timestamp);
  MergeTime& time = found->second;
  if (is_new) time.due = now + ahead + delay;
  MergeTime::Part& part = time.parts[metric->id];
  part.metric = metric;
  part.series.push_back(keyed);
}

void MergeIdentity::TakeBack(int64_t timestamp, const MergedMetric& metric) {
  times_.at(timestamp).parts.at(metric.id).series.pop_back();
}

bool MergeIdentity::HasRoomFor(int64_t timestamp) const {
  return times_.size() < kMaxTimesMeanwhile || times_.count(timestamp) != 0;
}

void MergeIdentity::Unsettle(int64_t timestamp, SteadyTime now, std::chrono::nanoseconds ahead) {
  const auto found = times_.find(timestamp);
  if (found == times_.end()) return;
  found->second.settled = std::max(found->second.settled, now + ahead + kSettle);
}

void MergeIdentity::FindDue(SteadyTime now, const IsLive& is_live) {
  if (times_.size() > kMaxTimes) {
    const auto next =
        std::min_element(times_.begin(), times_.end(),
                         [](const auto& a, const auto& b) { return a.second.due < b.second.due; });
    due_until_ = std::max(due_until_, next->first);
  }
  std::optional<int64_t> reported;
  for (auto time = times_.rbegin(); time != times_.rend(); ++time) {
    if (time->first <= due_until_) return;
    bool is_due = now >= time->second.due;
    if (!is_due && now >= time->second.settled) {
      if (!reported) reported = ReportedByAll(is_live);
      is_due = time->first <= *reported;
    }
    if (is_due) {
      due_until_ = time->first;
      return;
    }
  }
}

MergeTime* MergeIdentity::NextDue(int64_t* timestamp) {
  if (times_.empty() || times_.begin()->first > due_until_) {
    // A point of such a time that comes now is waited for like any other.
    due_until_ = INT64_MIN;
    return nullptr;
  }
  *timestamp = times_.begin()->first;
  return &times_.begin()->second;
}

int64_t MergeIdentity::ReportedByAll(const IsLive& is_live) const {
  int64_t reported = INT64_MAX;
  for (const auto& [id, process] : processes_) {
    if (process.newest < reported && is_live(id)) reported = process.newest;
  }
  return reported;
}

void MergeIdentity::Sweep(SteadyTime now, SteadyTime oldest, const IsLive& is_live, size_t* bytes,
                          size_t* series) {
  for (auto next = processes_.begin(); next != processes_.end();) {
    Process& process = next->second;
    if (is_live(next->first)) {
      process.gone = SteadyTime();
    } else if (process.gone == SteadyTime()) {
      process.gone = now;
    }
    const bool forget = process.gone != SteadyTime() && now - process.gone >= kForgetProcess;
    if (!forget) {
      ++next;
      continue;
    }
    *bytes -= kProcessBytes;
    next = processes_.erase(next);
  }
  for (auto next = metrics_.begin(); next != metrics_.end();) {
    MergedMetric* const metric = next->second.get();
    SweepMetric(metric, oldest, bytes, series);
    metric->SweepLayouts(bytes);
    if (!metric->series.empty()) {
      ++next;
      continue;
    }
    for (const auto& [hash, layout] : metric->layouts) *bytes -= BytesOf(*layout);
    *bytes -= BytesOf(*metric);
    next = metrics_.erase(next);
  }
}

void MergeIdentity::SweepMetric(MergedMetric* metric, SteadyTime oldest, size_t* bytes,
                                size_t* series) {
  for (auto next = metric->series.begin(); next != metric->series.end();) {
    *bytes -= BytesOfSeries(*next);
    MergedEntry& entry = next->second;
    if (entry.news < oldest && entry.series.IsIdle()) {
      next = metric->series.erase(next);
      --*series;
      continue;
    }
    entry.series.ForgetSources(
        [this](const ProcessId& process) { return processes_.count(process) != 0; }, oldest);
    *bytes += BytesOfSeries(*next);
    ++next;
  }
}

}  // namespace tidegate::agent

#include "agent/shared_series_log.h"

#include <cstddef>

#include "agent/quoted.h"

namespace tidegate::agent {
namespace {

constexpr size_t kMaxShownSeries = 300;  // bytes in a line of the log

std::string Shown(pid_t pid) {
  return pid > 0 ? "process " + std::to_string(pid) : "a process of another PID namespace";
}

}  // namespace

void SharedSeriesLog::Add(const Block& block, const PointTags& tags, const Reporter& reporter,
                          pid_t other) {
  ++health_->shared_series;
  if (log_.IsFull()) return;
  std::string series = block.name.substr(0, kMaxShownSeries) + '{';
  for (const PointTags::Tag& tag : tags) {
    if (series.size() > kMaxShownSeries) break;
    if (series.back() != '{') series += ',';
    series.append(tag.key.substr(0, kMaxShownSeries)) += '=';
    series.append(tag.value.substr(0, kMaxShownSeries));
  }
  std::string line;
  AppendQuoted(series + '}', &line);
  line += " comes from " + Shown(other) + " and " + Shown(reporter.pid) +
          " at one time, which mixes their values; ";
  if (label_ != ProcessLabel::kSlot) line += "use --process-label slot, or ";
  log_.Add(line + "give each of them a tag of its own");
}

}  // namespace tidegate::agent

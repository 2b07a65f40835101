#pragma once

#include <string>

#include "agent/health.h"
#include "agent/once_log.h"
#include "agent/packet_reader.h"
#include "agent/point_mapping.h"
#include "agent/series_reporters.h"

namespace tidegate::agent {

// Counts and reports series that two processes send at one time.
//
// Not thread-safe. Borrows `health`.
class SharedSeriesLog {
 public:
  SharedSeriesLog(ProcessLabel label, Health* health, Report report)
      : label_(label), health_(health), log_(std::move(report)) {}

  // The series with these tags in the block, from `reporter` and the process `other`.
  void Add(const Block& block, const PointTags& tags, const Reporter& reporter, pid_t other);

 private:
  const ProcessLabel label_;
  Health* const health_;
  OnceLog log_;
};

}  // namespace tidegate::agent

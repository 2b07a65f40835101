#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/families.h"
#include "agent/family_samples.h"

namespace tidegate::agent {

// Writes samples as messages of Prometheus remote write 1.0. What is appended to a text are whole
// fields of a WriteRequest, so such texts may be joined: a TimeSeries for each sample, with all of
// its labels in the order of their names, as receivers demand. A label without a value is none.
//
// Not thread-safe. Keeps buffers, so that usual samples are written without allocations.
class TimeSeriesWriter {
 public:
  // The labels of the samples that follow: first this, then all of them.
  void BeginLabels();
  void AddLabel(std::string_view key, std::string_view value);

  // One sample of a family. REQUIRES: its time is within kMaxSampleSeconds of the epoch.
  void AppendSample(std::string_view family, const FamilySample& sample, std::string* out) {
    Append(family, sample, sample.timestamp * 1000, out);
  }
  void Append(std::string_view family, const FamilySample& sample, int64_t time_ms,
              std::string* out);

 private:
  struct Label {
    std::string name;  // as it is shown
    std::string value;
    size_t end;  // in labels_
  };

  // Writes labels_.
  void SortLabels();
  size_t EndOfLabelsBefore(std::string_view name) const;

  std::vector<Label> sorted_;  // the first count_, the rest is kept for its memory
  size_t count_ = 0;
  bool is_sorted_ = false;
  std::string labels_;  // encoded, in order
  std::string name_;
  std::string series_;
};

// Appends what a family is, for receivers that keep it. `type` is as in the text format.
void AppendFamilyMetadata(const FamilyPart& family, std::string_view help, std::string* out);

}  // namespace tidegate::agent

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "agent/point_mapping.h"
#include "agent/sized_text.h"

namespace tidegate::agent {

// The key of a series in the table: its tags, in order, and then the number of its metric. The
// values are as they are shown, so that no two series look alike.
//
// Not thread-safe. Reuse it, then it allocates nothing for usual tags.
class SeriesKey {
 public:
  // With room for the number of the metric, which is not yet known.
  void Assign(const PointTags& tags);
  void Complete(uint64_t metric) {
    std::memcpy(text_.data() + tag_bytes_, &metric, sizeof(metric));
  }

  const std::string& text() const { return text_; }
  std::string_view tags() const { return {text_.data(), tag_bytes_}; }

  // Calls handle(key, value) with the tags of a key, in order, until it answers false.
  template <typename Handle>
  static void ForEachTag(std::string_view text, const Handle& handle) {
    text.remove_suffix(sizeof(uint64_t));
    while (!text.empty()) {
      const std::string_view tag = TakeSized(&text);
      if (!handle(tag, TakeSized(&text))) return;
    }
  }

 private:
  void AssignShown(const PointTags& tags);

  std::string text_;
  size_t tag_bytes_ = 0;
  std::string shown_;  // of a value
};

}  // namespace tidegate::agent

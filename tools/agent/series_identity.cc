#include "agent/series_identity.h"

#include "agent/exposition.h"

namespace tidegate::agent {

size_t SeriesIdentity::LabelBytes() {
  if (!label_bytes_) {
    size_t bytes = 0;
    SeriesKey::ForEachTag(key_.text(), [&bytes](std::string_view key, std::string_view value) {
      bytes += LabelSize(key, value);
      return true;
    });
    label_bytes_ = bytes;
  }
  return *label_bytes_;
}

}  // namespace tidegate::agent

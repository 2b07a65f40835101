#include "agent/series_key.h"

#include <algorithm>

#include "agent/exposition.h"

namespace tidegate::agent {
namespace {

// Whether AppendText leaves it as it is. False for some others as well.
bool IsPlain(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<signed char>(c) > 0 && c != '\\'; });
}

}  // namespace

void SeriesKey::Assign(const PointTags& tags) {
  tag_bytes_ = 0;
  bool plain = true;
  for (const PointTags::Tag& tag : tags) {
    tag_bytes_ += SizedBytes(tag.key) + SizedBytes(tag.value);
    plain = plain && IsPlain(tag.value);
  }
  if (!plain) return AssignShown(tags);
  text_.resize(tag_bytes_ + sizeof(uint64_t));
  char* end = text_.data();
  for (const PointTags::Tag& tag : tags) end = PutSized(tag.value, PutSized(tag.key, end));
}

void SeriesKey::AssignShown(const PointTags& tags) {
  tag_bytes_ = 0;
  for (const PointTags::Tag& tag : tags) {
    shown_.clear();
    AppendText(tag.value, &shown_);
    const size_t size = SizedBytes(tag.key) + SizedBytes(shown_);
    text_.resize(tag_bytes_ + size);
    PutSized(shown_, PutSized(tag.key, text_.data() + tag_bytes_));
    tag_bytes_ += size;
  }
  text_.resize(tag_bytes_ + sizeof(uint64_t));
}

}  // namespace tidegate::agent

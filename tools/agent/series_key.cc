#include "agent/series_key.h"

#include <algorithm>

#include "agent/exposition.h"

namespace tidegate::agent {
namespace {

// Returns the end of what it put.
char* PutSized(std::string_view text, char* to) {
  const auto size = static_cast<uint32_t>(text.size());
  std::memcpy(to, &size, sizeof(size));
  std::memcpy(to + sizeof(size), text.data(), text.size());
  return to + sizeof(size) + text.size();
}

// Whether AppendText leaves it as it is. False for some others as well.
bool IsPlain(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<signed char>(c) > 0 && c != '\\'; });
}

}  // namespace

std::string_view SeriesKey::TakeSized(std::string_view* text) {
  uint32_t size = 0;
  std::memcpy(&size, text->data(), sizeof(size));
  const std::string_view taken = text->substr(sizeof(size), size);
  text->remove_prefix(sizeof(size) + size);
  return taken;
}

void SeriesKey::Assign(const PointTags& tags) {
  tag_bytes_ = 0;
  bool plain = true;
  for (const PointTags::Tag& tag : tags) {
    tag_bytes_ += 2 * sizeof(uint32_t) + tag.key.size() + tag.value.size();
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
    const size_t size = 2 * sizeof(uint32_t) + tag.key.size() + shown_.size();
    text_.resize(tag_bytes_ + size);
    PutSized(shown_, PutSized(tag.key, text_.data() + tag_bytes_));
    tag_bytes_ += size;
  }
  text_.resize(tag_bytes_ + sizeof(uint64_t));
}

}  // namespace tidegate::agent

#include "agent/altered_names.h"

#include "agent/quoted.h"

namespace tidegate::agent {
namespace {

constexpr char kEnd = '\n';

// Of a name that is quoted.
constexpr size_t kMaxShown = 200;

std::string Shown(std::string_view name) {
  std::string shown;
  AppendQuoted(name.substr(0, kMaxShown), &shown);
  if (name.size() > kMaxShown) shown += "...";
  return shown;
}

struct Words {
  char code;  // in keys
  const char* names;
  const char* outcome;
};

Words WordsOf(LinePart part) {
  switch (part) {
    case LinePart::kTag:
      return {'t', "tags", "their series are mixed there, and a line has only the first of them"};
    case LinePart::kField:
      return {'f', "fields", "their values are mixed there, and a line has only the first of them"};
    default:
      return {'m', "measurements", "their points are mixed there"};
  }
}

}  // namespace

void AlteredNames::StartBlock(std::string_view name, std::string_view escaped, bool altered) {
  measurement_ = escaped;
  watches_block_ = false;
  if (originals_.empty() && !altered) return;
  key_.assign(escaped) += kEnd;
  const auto next = originals_.lower_bound(key_);
  watches_block_ = next != originals_.end() && next->first.compare(0, key_.size(), key_) == 0;
  See(LinePart::kMeasurement, name, escaped, altered);
}

void AlteredNames::See(LinePart part, std::string_view name, std::string_view escaped,
                       bool altered) {
  if (!altered && !watches_block_) return;
  key_.assign(measurement_) += kEnd;
  key_ += WordsOf(part).code;
  if (part != LinePart::kMeasurement) key_ += escaped;
  const auto found = originals_.find(key_);
  if (found == originals_.end()) {
    if (altered && originals_.size() < kMaxNames && key_.size() + name.size() <= kMaxNameBytes) {
      originals_.emplace(key_, name);
      watches_block_ = true;
    }
  } else if (found->second != name) {
    Report(part, found->second, name, escaped);
  }
}

void AlteredNames::Report(LinePart part, std::string_view first, std::string_view second,
                          std::string_view escaped) {
  if (log_.IsFull()) return;
  const Words words = WordsOf(part);
  const std::string of = part == LinePart::kMeasurement ? "" : " of " + Shown(measurement_);
  log_.Report(std::string("the ") + words.names + " " + Shown(first) + " and " + Shown(second) +
              of + " are both forwarded as " + Shown(escaped) + ": " + words.outcome +
              ", rename one");
}

}  // namespace tidegate::agent
